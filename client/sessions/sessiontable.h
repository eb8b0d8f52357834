// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/sessionentry.h"

#include <QString>

/** The looks of a table of sessions. */
struct TableStyle
{
    int width = 0;       ///< columns of the terminal; 0: lines are not cut
    bool legend = true;  ///< a first line with titles
    bool colour = false; ///< escape sequences for colour
    QString localHost;   ///< shown for sessions without a location
};

/** What the mark "!" before a host means, for people; empty if no session has it. */
[[nodiscard]] QString untrustedNote(const SessionList &sessions);

/** The sessions as an aligned table for people, one line each. Control characters in names are replaced. */
[[nodiscard]] QString sessionTable(const SessionList &sessions, const TableStyle &style);

/** The sessions for scripts: whole ids, tabs between fields, no titles, nothing cut. */
[[nodiscard]] QString plainSessionTable(const SessionList &sessions, const QString &localHost);
