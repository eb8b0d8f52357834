// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"
#include "client/sessions/connectionoffer.h"

#include <QStringList>

/**
 * Checks the arguments of a start, so that no server is started for wrong ones.
 * @param failure  set only on failure: Usage
 */
[[nodiscard]] bool checkStart(const QStringList &command, const QString &geometry, Failure *failure);

/**
 * Starts a session with a new id on the connected server. Shows the progress on a terminal.
 *
 * @param command  the arguments of our own command line that name the command, after checkStart()
 * @param offer    set only on success
 * @param failure  set only on failure; with the end of the agent's log, if there is one
 */
[[nodiscard]] bool startNewSession(ClientContext &context, const QStringList &command, const QString &geometry,
                                   ConnectionOffer *offer, Failure *failure);
