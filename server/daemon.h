// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Forks, and returns in the child alone: a process in a session of its own, working in "/", with standard
 * input and output on "/dev/null" and no other descriptor of its caller's. Its standard error leads to the
 * parent, which stays with the caller's terminal, copies what arrives and exits with 0 once
 * closeStartupChannel() was called or the child has ended.
 *
 * Called first thing, before there are threads.
 *
 * @param error  set only on failure, which is reported in the one process or in the child: one sentence
 */
[[nodiscard]] bool becomeDaemon(QString *error);

/**
 * Ends the start-up: standard error goes to "/dev/null" from now on and the parent exits.
 * @param error  set only on failure
 */
[[nodiscard]] bool closeStartupChannel(QString *error);
