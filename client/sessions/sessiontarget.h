// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/sessionentry.h"
#include "client/terminal/exitcode.h"

#include <QString>

/**
 * Finds the session that the user means: a whole id; else an exact name or the beginning of an id, which only one
 * session may have; or, with an empty @p target, the only session there is.
 *
 * @param found    set only on success
 * @param failure  set only on failure: NoSuchSession, or Ambiguous with the list of those that fit
 */
[[nodiscard]] bool findSession(const SessionList &sessions, const QString &target, SessionEntry *found,
                               Failure *failure);
