// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/**
 * Reads the last @p lines lines (0: all) of a text file, but no more than its last MiB.
 * @param text   set only on success; ends with a line feed unless it is empty
 * @param error  set only on failure
 */
[[nodiscard]] bool readTail(const QString &path, int lines, QString *text, QString *error);

/**
 * The same for a log that is rotated: goes on in "NAME.old" if the log has too few lines. If there is only the old one,
 * the log is being rotated just now. Reads up to 32 MiB of each, and never leaves out lines in the middle.
 * @param error  set on failure; also on success, if the old log is needed and cannot be read
 */
[[nodiscard]] bool readRotatedTail(const QString &path, int lines, QString *text, QString *error);

/** The text of an agent's log with each password replaced by asterisks, because users share logs with others. */
[[nodiscard]] QString withoutPasswords(const QString &log);
