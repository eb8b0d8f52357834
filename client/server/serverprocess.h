// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QString>

#include <optional>

/*
 * What /proc shows about server processes. Callable from any thread.
 */

/** Whether @p pid is a running server of this user. */
[[nodiscard]] bool isServerProcess(qint64 pid);

/** The environment variable as the process got it at its start; null if it is not set or cannot be read. */
[[nodiscard]] std::optional<QString> environmentOf(qint64 pid, const QString &variable);

/** The servers of this user whose USER is the same as ours. A new server does not start while one of them runs. */
[[nodiscard]] QList<qint64> serversOfSameUser();

/** The server of this user that listens on a TCP port; 0 if there is none. */
[[nodiscard]] qint64 serverListeningOn(quint16 port);
