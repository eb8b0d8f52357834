// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Whether the system has so many threads left for us, which is found out by making and ending them. Qt does not tell: a
 * task for which its pool gets no thread is gone without a word, and its place in the pool with it. Callable from any
 * thread.
 *
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool canHaveThreads(int count, QString *error);
