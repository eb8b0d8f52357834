// SPDX-License-Identifier: MIT
#pragma once

#include "live/sessioninfo.h"

#include <QByteArray>
#include <QList>
#include <QString>

/** The "id" of the request to a peer. Its reply must have the same. */
inline constexpr const char *kPeerRequestId = "ServerUpdate";

/**
 * Reads the reply of a peer that was asked for its sessions. Callable from any thread.
 *
 * @param sessions  set only on success; invalid descriptions are left out
 * @param error     set only on failure: one sentence, or the message that the peer has sent
 */
[[nodiscard]] bool readPeerReply(const QByteArray &payload, QList<SessionInfo> *sessions, QString *error);
