// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"
#include "client/sessions/connectionoffer.h"

#include <QStringList>

/**
 * Whether a session can be started so. Asked before a server is started for it.
 * @param failure  set only on failure: Usage
 */
[[nodiscard]] bool checkStart(const QStringList &command, const QString &geometry, Failure *failure);

/**
 * Starts a session of a new id on the connected server and shows meanwhile, on a terminal, that it goes on.
 *
 * @param command  as the arguments of our own command line, which checkStart() has found good
 * @param offer    set only on success
 * @param failure  set only on failure; with the end of the agent's log, if it wrote any
 */
[[nodiscard]] bool startSession(ClientContext &context, const QStringList &command, const QString &geometry,
                                ConnectionOffer *offer, Failure *failure);
