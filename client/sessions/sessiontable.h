// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/sessionentry.h"

#include <QString>

/** How a table of sessions is to look. */
struct TableStyle
{
    int width = 0;       ///< columns to cut the lines to; 0: as long as they are
    bool legend = true;  ///< with a line of titles
    bool colour = false; ///< with escape sequences for colour
    QString localHost;   ///< what stands for sessions without a location
};

/** The sessions as an aligned table for people, one line each. Names lose what a terminal would obey. */
[[nodiscard]] QString sessionTable(const SessionList &sessions, const TableStyle &style);

/** The same for scripts: whole ids, fields separated by tabs, no titles, nothing cut. */
[[nodiscard]] QString plainSessionTable(const SessionList &sessions, const QString &localHost);
