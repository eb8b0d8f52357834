// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QString>

#include <optional>

/*
 * What can be known about server processes, which let no other process inspect them: what /proc shows all the same, and
 * what they write into the files of the lock that they hold. Callable from any thread.
 */

/** Whether @p pid is a running server of this user. */
[[nodiscard]] bool isServerProcess(qint64 pid);

/**
 * HOME or PATH as a server of our USER got it at its start. Null if it is not set, if the server could not write it
 * down, or if @p pid is another process.
 */
[[nodiscard]] std::optional<QString> environmentOf(qint64 pid, const QString &variable);

/**
 * The servers of this user whose USER is the same as ours, usually one. A new server does not start while one of them
 * runs.
 */
[[nodiscard]] QList<qint64> serversOfSameUser();

/**
 * The server of our USER if a process of this user listens on the TCP port; 0 if there is none. The kernel does not
 * tell which process listens.
 */
[[nodiscard]] qint64 serverListeningOn(quint16 port);
