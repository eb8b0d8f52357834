// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/exitcode.h"

#include <QtGlobal>

#include <chrono>

/**
 * Asks a server process to end and waits for that. Its sessions go on.
 * @param failure  set only on failure: NoServer when there is no such process, or TimedOut
 */
[[nodiscard]] bool stopServer(qint64 pid, std::chrono::milliseconds timeout, Failure *failure);
