// SPDX-License-Identifier: MIT
#pragma once

#include "contract/userdirectory.h"

#include <QString>

/** What the files of the user path tell about the server. */
enum class ServerTrace {
    Missing,    ///< no port file: nobody has started a server, or it has ended
    Starting,   ///< a server process is there and has not written its port yet
    Stale,      ///< left behind by a server whose process is gone
    Unreadable, ///< a file is there and cannot be used
    Running,    ///< a server process is there and names its port
};

/** One look at the files. A plain value. */
struct ServerSighting
{
    ServerTrace trace = ServerTrace::Missing;
    quint16 port = 0; ///< set for Running
    qint64 pid = 0;   ///< 0 when the pid file names none and no server listens on the port
    QString detail;   ///< one sentence about the trace, for the user

    /** Whether the other one tells of the same server, in the same state. */
    [[nodiscard]] bool isLike(const ServerSighting &other) const
    {
        return trace == other.trace && port == other.port && pid == other.pid;
    }
};

/**
 * The files by which the server of this user and host is found. Only reads. Callable from any thread.
 */
class ServerFiles
{
public:
    explicit ServerFiles(const QString &userPath);

    [[nodiscard]] QString userPath() const { return path; }
    [[nodiscard]] QString portPath() const { return file(UserFile::kServerPort); }
    [[nodiscard]] QString pidPath() const { return file(UserFile::kServerPid); }
    [[nodiscard]] QString logPath() const { return file(UserFile::kServerLog); }
    [[nodiscard]] QString sessionsPath() const { return file(UserFile::kSessions); }
    [[nodiscard]] QString certificatePath() const;
    [[nodiscard]] QString keyPath() const;

    /** The directory of a session; the id must be one that the server or the disk gave. */
    [[nodiscard]] QString sessionDirectory(const QString &id) const;

    /** What the files tell at the moment, also while a server writes or removes them. */
    [[nodiscard]] ServerSighting look() const;

private:
    [[nodiscard]] ServerSighting glance() const;
    [[nodiscard]] QString file(QLatin1StringView name) const;

    QString path;
};
