// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QSet>
#include <QString>

#include <sys/types.h>

/**
 * The live descendants of @p root, children before grandchildren, without @p root itself. Zombies are left out.
 *
 * @param except  a process to leave out together with its own descendants; 0 for none
 */
[[nodiscard]] QList<pid_t> liveDescendants(pid_t root, pid_t except);

/** The live children of this process. For a subreaper these include its orphaned descendants. */
[[nodiscard]] QSet<pid_t> liveChildren();

/** Sends the signal @p number to each of @p processes. */
void signalAll(const QList<pid_t> &processes, int number);

/**
 * Makes this process a subreaper: the parent of all its descendants whose own parent ends. Children do not inherit
 * that.
 *
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool becomeSubreaper(QString *error);
