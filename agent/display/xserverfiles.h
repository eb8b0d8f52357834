// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <sys/types.h>

/**
 * Removes the lock file and the socket of @p display that a killed X server with the pid @p xServer has left behind.
 * Does nothing unless the lock names that pid, because the display may belong to another X server. To be called before
 * the process is reaped: until then its pid is taken, so no other X server takes the lock for stale.
 *
 * @param directory  where X servers keep their files; tests use another one
 */
void removeXServerFiles(quint16 display, pid_t xServer, const QString &directory = QStringLiteral("/tmp"));
