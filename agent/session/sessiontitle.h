// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * What viewers show as the title of a session: its name on one line, each row of blanks as one space. A session without
 * a name gets its display number as the title.
 *
 * @param name  the content of the session's name file, UTF-8
 */
[[nodiscard]] QString sessionTitle(const QByteArray &name, quint16 display);
