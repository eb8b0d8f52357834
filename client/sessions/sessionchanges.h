// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/sessionentry.h"

/** One difference between two lists. */
struct SessionChange
{
    enum class Kind { Added, Changed, Removed };

    Kind kind;
    SessionEntry session; ///< as it is now; the last known state of a removed one

    /** The form that "watch" prints: {"event": "added", "session": {…}}. */
    [[nodiscard]] Json::Value toJson() const;
};

/** What makes @p after of @p before: removed ones first, then added and changed ones in the order of the list. */
[[nodiscard]] QList<SessionChange> sessionChanges(const SessionList &before, const SessionList &after);
