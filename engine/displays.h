// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <optional>

/**
 * Whether nobody listens on this TCP port of the loopback address: only a refused connection says so. Blocks
 * for up to 1000 ms; callable from any thread.
 */
[[nodiscard]] bool isPortFree(quint16 port);

/**
 * The first display number from @p base up to, but not including, @p limit (in 16 bits) whose ports, sockets
 * and lock file nobody uses; nothing when there is none. Reserves nothing. Blocks for up to 2000 ms for each
 * number tried; callable from any thread.
 */
[[nodiscard]] std::optional<quint16> findOpenDisplay(quint16 base, quint16 limit);
