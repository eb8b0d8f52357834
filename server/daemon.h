// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Forks and returns only in the child. The child has a session of its own, works in "/", and has standard input and
 * output on "/dev/null" and no other descriptor of its caller. Its standard error is a pipe to the parent. The parent
 * copies it to the caller's terminal and exits with 0 after closeStartupChannel() or the end of the child.
 *
 * Called first, before there are threads.
 *
 * @param error  set only on failure: one sentence. If forking fails, this returns false in the original process
 */
[[nodiscard]] bool becomeDaemon(QString *error);

/**
 * Ends the start-up: points standard error at "/dev/null", so that the parent exits.
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool closeStartupChannel(QString *error);
