// SPDX-License-Identifier: MIT
#pragma once

#include "client/exitcode.h"
#include "client/sessionentry.h"

#include <QString>

/**
 * Finds the session that the user means: a whole id, an exact name, the beginning of an id that only one
 * session has, or, with an empty @p target, the only session there is. The first of these that fits wins.
 *
 * @param found    set only on success
 * @param failure  set only on failure: NoSuchSession, or Ambiguous with the list of those that fit
 */
[[nodiscard]] bool findSession(const SessionList &sessions, const QString &target, SessionEntry *found,
                               Failure *failure);
