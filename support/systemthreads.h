// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Whether the system can give us @p count more threads. Finds out by starting and ending them, because Qt does not
 * report it: if its pool gets no thread for a task, the task is lost silently and its place in the pool stays taken.
 * Callable from any thread.
 *
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool canHaveThreads(int count, QString *error);
