// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <sys/types.h>

/**
 * Removes the lock file and the socket of @p display that the X server with the process id @p xServer could not remove
 * itself because it was killed. Does nothing unless the lock names that process: the display may be another one's.
 * To be called before the process is reaped, for until then no other X server takes the lock for a stale one.
 *
 * @param directory  where the files of X servers are; another one is for tests
 */
void removeXServerFiles(quint16 display, pid_t xServer, const QString &directory = QStringLiteral("/tmp"));
