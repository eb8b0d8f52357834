// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * What viewers show as the title of a session: its name on one line, without blanks that nobody sees. A session without
 * a name is called by its display.
 *
 * @param name  as in the session's file, in UTF-8
 */
[[nodiscard]] QString sessionTitle(const QByteArray &name, quint16 display);
