// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Whether a program of this user could listen on a TCP port of all interfaces. Nothing listens there meanwhile, so that
 * whoever wants the port at the same moment gets it. Callable from any thread.
 *
 * @param error  set only on failure: the system's reason
 */
[[nodiscard]] bool canListenOn(quint16 port, QString *error);
