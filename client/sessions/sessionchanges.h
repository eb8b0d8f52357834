// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/sessionentry.h"

/** One difference between two lists. */
struct SessionChange
{
    enum class Kind { Added, Changed, Removed };

    Kind kind;
    SessionEntry session; ///< its new state; if it was removed, its last known state

    /** The form that "watch" prints: {"event": "added", "session": {…}}. */
    [[nodiscard]] Json::Value toJson() const;
};

/**
 * How @p after differs from @p before: first the removed sessions, then the added and changed ones in the order of
 * @p after.
 */
[[nodiscard]] QList<SessionChange> sessionChanges(const SessionList &before, const SessionList &after);
