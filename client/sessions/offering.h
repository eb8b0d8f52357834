// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"
#include "client/sessions/connectionoffer.h"
#include "client/terminal/exitcode.h"

/**
 * Asks the connected server to offer a password for one of its sessions.
 *
 * @param method   "Live.Resume" or "Live.Replay"
 * @param failure  set only on failure; for WrongState, the text names the verb that fits the session's state
 */
[[nodiscard]] bool requestOffer(ClientContext &context, const QString &method, const SessionEntry &session,
                                ConnectionOffer *offer, Failure *failure);

/** Fails as the server does for a session that has a viewer: WrongState, with the verb that helps. */
bool failConnected(Failure *failure);
