// SPDX-License-Identifier: MIT
#pragma once

#include "client/server/serverstatus.h"
#include "contract/userdirectory.h"

#include <QString>

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

    /** The server as its files show it now. A server may write or remove them meanwhile. */
    [[nodiscard]] ServerStatus readStatus() const;

private:
    [[nodiscard]] ServerFacts readFacts() const;
    [[nodiscard]] QString file(QLatin1StringView name) const;

    QString path;
};
