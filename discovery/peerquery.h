// SPDX-License-Identifier: MIT
#pragma once

#include "live/sessioninfo.h"

#include <QList>
#include <QString>

class QHostAddress;
class QSslCertificate;
class QSslKey;

/**
 * Asks a peer's service for the sessions of its host, over TLS with our own certificate, which must be the peer's as
 * well. Blocks for up to 15 seconds in all; callable from any thread but the main one.
 *
 * @param sessions  set only on success; descriptions that make no sense are left out
 * @param error     set only on failure: one sentence that names the peer, or the peer's own words
 */
[[nodiscard]] bool fetchPeerSessions(const QHostAddress &address, quint16 port, const QSslCertificate &certificate,
                                     const QSslKey &key, QList<SessionInfo> &sessions, QString &error);
