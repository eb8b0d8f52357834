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
    QList<QByteArray> environment; ///< "NAME=value" each
    int output = -1;               ///< its standard output and error; -1: nowhere
    int inheritedAsThree = -1;     ///< a descriptor that it finds as number 3; -1: none
    mode_t fileCreationMask = 077;
    QByteArray workingDirectory; ///< empty, or not there: ours
};

/**
 * Starts a child in a session of its own, with default signal handling, standard input from nowhere and no descriptor
 * but those of the request. The child gets SIGTERM when we die, however that happens. Does not wait for the
 * program to be loaded: when that fails, the child says so on its output and ends with exit code 127.
 *
 * Main thread only, for "when we die" means this thread.
 *
 * @param error  set only on failure: one sentence
 * @return the process's id, to be reaped by the ChildWatcher; -1 on failure
 */
[[nodiscard]] pid_t spawnProcess(const SpawnRequest &request, QString *error);

/** The exit code 127 by which a child tells that its program could not be run. */
inline constexpr int kProgramNotRun = 127;

/** How a process ended, for people: "exit code 1" or "signal 9". @param status  as from waitpid() */
[[nodiscard]] QString exitStatusText(int status);
