// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/**
 * Runs @p program to its end and reduces the outcome to success or one sentence. Its output is discarded. It does not
 * outlive the calling thread. Blocks that thread, so it is not called on the main thread once clients are served.
 *
 * @param program           found by name on the search path; no shell is involved
 * @param workingDirectory  empty: the caller's own
 * @param timeoutMs         longest run in milliseconds, after which the program is killed; -1 waits for ever
 * @param error             set only on failure: the program's name and the reason, which is the first line
 *                          of its standard error when it ended by itself
 * @return true when the program ended by itself with exit code 0
 */
[[nodiscard]] bool runProgram(const QString &program, const QStringList &arguments, const QString &workingDirectory,
                              int timeoutMs, QString *error);
