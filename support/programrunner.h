// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/** The line of a failed program's standard error that tells the reason. */
enum class ReasonLine {
    First,
    Last, ///< of programs that show their progress first
};

/**
 * Runs @p program and waits for its end. Discards its output. The program is killed if the calling thread ends. Blocks
 * that thread, so do not call it on the main thread once clients are served.
 *
 * @param program           found by name on the search path; no shell is involved
 * @param workingDirectory  empty: the caller's own
 * @param timeoutMs         how long the program may run in milliseconds until it is killed; -1: without a limit
 * @param error             set only on failure: the program's name and the reason. If the program ended by itself, the
 *                          reason is the line @p reasonLine of its standard error
 * @return true when the program ended by itself with exit code 0
 */
[[nodiscard]] bool runProgram(const QString &program, const QStringList &arguments, const QString &workingDirectory,
                              int timeoutMs, QString *error, ReasonLine reasonLine = ReasonLine::First);
