// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Whether a program of this user could listen on a TCP port of all interfaces. Only binds the port, so a program that
 * wants to listen on it at the same moment succeeds. Callable from any thread.
 *
 * @param error  set only on failure: the system's reason
 */
[[nodiscard]] bool canListenOn(quint16 port, QString *error);
