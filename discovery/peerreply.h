// SPDX-License-Identifier: MIT
#pragma once

#include "live/sessioninfo.h"

#include <QByteArray>
#include <QList>
#include <QString>

/** What the request to a peer is called, and its reply must be. */
inline constexpr const char *kPeerRequestId = "ServerUpdate";

/**
 * Reads a peer's reply to the question for its sessions. Callable from any thread.
 *
 * @param sessions  set only on success; descriptions that make no sense are left out
 * @param error     set only on failure: one sentence, or the peer's own words
 */
[[nodiscard]] bool readPeerReply(const QByteArray &payload, QList<SessionInfo> *sessions, QString *error);
