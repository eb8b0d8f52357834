// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <sys/types.h>

/** How a child process is to be started. A value; the descriptors stay the caller's. */
struct SpawnRequest
{
    QByteArray program;            ///< path of the file to run
    QList<QByteArray> arguments;   ///< the name that the program sees as its own, then its arguments
    QList<QByteArray> environment; ///< each variable as "NAME=value"
    int output = -1;               ///< its standard output and error; -1: /dev/null
    QList<int> inherited;          ///< descriptors that it gets as numbers 3, 4 and so on; at most 4
    QByteArray pidVariable;        ///< a variable that gets the pid of the child as its value; empty: none
    mode_t fileCreationMask = 077;
    QByteArray workingDirectory; ///< when empty or missing, ours
};

/**
 * Starts a child in a session of its own, with default signal handling, /dev/null as standard input and no descriptor
 * but those of the request. The child gets SIGTERM when we die, however that happens. Does not wait until the program
 * is loaded: when that fails, the child says so on its output and ends with exit code 127.
 *
 * Main thread only, because the child gets its SIGTERM when the thread that started it ends.
 *
 * @param error  set only on failure: one sentence
 * @return the pid, which ChildWatcher reaps; -1 on failure
 */
[[nodiscard]] pid_t spawnProcess(const SpawnRequest &request, QString *error);

/** The exit code of a child whose program could not be run; shells use the same. */
inline constexpr int kProgramNotRun = 127;

/**
 * How a process ended, as a text to log: "exit code 1" or "signal 9".
 *
 * @param status  as from waitpid()
 */
[[nodiscard]] QString exitStatusText(int status);
