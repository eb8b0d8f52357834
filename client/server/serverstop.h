// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/exitcode.h"

#include <QtGlobal>

#include <chrono>

/**
 * Sends SIGTERM to a server process and waits until it has ended. Its sessions go on.
 * @param failure  set only on failure: NoServer if there is no such process, or TimedOut
 */
[[nodiscard]] bool stopServer(qint64 pid, std::chrono::milliseconds timeout, Failure *failure);
