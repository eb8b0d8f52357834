// SPDX-License-Identifier: MIT
#pragma once

#include "client/server/serverfiles.h"
#include "client/sessions/sessionentry.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>

#include <optional>

/** A session as one of the user's other servers has reported it. A plain value. */
struct PeerReport
{
    QHostAddress peer;
    QString id;
    QString location;

    bool operator==(const PeerReport &) const = default;
};

/** Reads the server's file of what its peers have reported; nothing if it breaks the form anywhere. */
[[nodiscard]] std::optional<QList<PeerReport>> readPeerReports(const QByteArray &json);

/** Whether both are the same host's. Only link-local addresses depend on the interface. */
[[nodiscard]] bool isSameAddress(const QHostAddress &left, const QHostAddress &right);

/**
 * Marks the sessions whose location names another host than the one that has reported them: a server that holds the
 * user's certificate may be hostile, and connecting would run ssh to a host of its choice. Without the server's file,
 * or if a name has no address, the session counts as not trusted. Waits up to a second for the name service. Used on
 * the main thread.
 */
void markTrust(const ServerFiles &files, SessionList *sessions);
