// SPDX-License-Identifier: MIT
#pragma once

#include "live/sessioninfo.h"

#include <QList>
#include <QString>

class QHostAddress;
class QSslCertificate;
class QSslKey;

/**
 * Asks the service of a peer for the sessions of its host, over TLS. The peer must have the same certificate as we.
 * Blocks for up to 15 seconds; callable from any thread except the main one.
 *
 * @param sessions  set only on success; invalid descriptions are left out
 * @param error     set only on failure: one sentence that names the peer, or the message that the peer has sent
 * @param kind      set only if a stranger can cause the failure: the error without its arguments. The content of an
 *                  answer is the peer's, but whether we reach it is up to anybody on the way
 */
[[nodiscard]] bool fetchPeerSessions(const QHostAddress &address, quint16 port, const QSslCertificate &certificate,
                                     const QSslKey &key, QList<SessionInfo> &sessions, QString &error,
                                     QString *kind = nullptr);
