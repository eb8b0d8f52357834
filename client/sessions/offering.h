// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"
#include "client/sessions/connectionoffer.h"

/**
 * Makes the connected server offer a password for one of its sessions.
 *
 * @param method   "Live.Resume" or "Live.Replay"
 * @param failure  set only on failure; the sentence for a wrong state says which verb fits
 */
[[nodiscard]] bool requestOffer(ClientContext &context, const QString &method, const SessionEntry &session,
                                ConnectionOffer *offer, Failure *failure);
