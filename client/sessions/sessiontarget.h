// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/sessionentry.h"
#include "client/terminal/exitcode.h"

#include <QString>

/**
 * Finds the session that the user means. A target is a whole id; else the name or the first digits of the id of exactly
 * one session. An empty target means the only session.
 *
 * @param found    set only on success
 * @param failure  set only on failure: NoSuchSession, or Ambiguous with a list of the matches
 */
[[nodiscard]] bool findSession(const SessionList &sessions, const QString &target, SessionEntry *found,
                               Failure *failure);
