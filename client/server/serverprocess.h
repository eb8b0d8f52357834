// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QString>

#include <optional>

/*
 * What the kernel tells about the processes of servers. Callable from any thread.
 */

/** Whether @p pid is a live process of a server, and one of this user. */
[[nodiscard]] bool isServerProcess(qint64 pid);

/** The variable as the process got it at its start; null when it has none or does not show it to us. */
[[nodiscard]] std::optional<QString> environmentOf(qint64 pid, const QString &variable);

/** The servers that keep another one from starting: those of this user that have the same USER. */
[[nodiscard]] QList<qint64> serversOfSameUser();

/** The server of this user that listens on a TCP port; 0 when there is none. */
[[nodiscard]] qint64 serverListeningOn(quint16 port);
