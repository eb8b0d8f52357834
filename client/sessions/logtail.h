// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/**
 * Reads the end of a text file: its last @p lines lines (0: all), but no more than the last MiB.
 * @param text   set only on success; ends with a line feed unless it is empty
 * @param error  set only on failure
 */
[[nodiscard]] bool readTail(const QString &path, int lines, QString *text, QString *error);

/** The text of an agent's log with its passwords struck out, for it is made to be shown around. */
[[nodiscard]] QString withoutPasswords(const QString &log);
