// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/** What the files of the user path tell about the server. */
enum class ServerState {
    Missing,    ///< no port file: no server was started, or it has ended
    Starting,   ///< a server process runs and has not written its port yet
    Stale,      ///< files of a server whose process has ended
    Unreadable, ///< a file exists and cannot be used
    Running,    ///< a server process runs and its port is known
};

/** The server as its files show it at one moment. A plain value. */
struct ServerStatus
{
    ServerState state = ServerState::Missing;
    quint16 port = 0; ///< set for Running
    qint64 pid = 0;   ///< 0 when the pid file names none and no server listens on the port
    QString detail;   ///< one sentence about the state, for the user

    /** Whether a server may run: false if there is no port file, or if the process has ended. */
    [[nodiscard]] bool mayRun() const { return state != ServerState::Missing && state != ServerState::Stale; }

    /** Whether @p other shows the same server in the same state. */
    [[nodiscard]] bool isSameAs(const ServerStatus &other) const
    {
        return state == other.state && port == other.port && pid == other.pid;
    }
};

/** How reading a file with one number went. */
enum class NumberFile { Missing, Empty, Unreadable, Invalid, Valid };

/** What was read to find the server. A plain value. */
struct ServerFacts
{
    QString portPath;
    NumberFile pidFile = NumberFile::Missing;
    NumberFile portFile = NumberFile::Missing;
    qint64 pid = 0;           ///< from a valid pid file; without a pid file, of the server that listens on the port
    qint64 port = 0;          ///< from a valid port file
    bool isPortOlder = false; ///< the port file was written before the pid file, so by an earlier server
    bool isAlive = false;     ///< the pid is that of a running server
    QString error;            ///< why a file is Unreadable or Invalid: the last one read
};

/** What the facts mean. Pure; callable from any thread. */
[[nodiscard]] ServerStatus classify(const ServerFacts &facts);
