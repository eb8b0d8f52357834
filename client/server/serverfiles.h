// SPDX-License-Identifier: MIT
#pragma once

#include "client/server/serverstatus.h"
#include "contract/userdirectory.h"

#include <QString>

/**
 * The files that tell where the server of this user and host is. Only reads them. Callable from any thread.
 */
class ServerFiles
{
public:
    explicit ServerFiles(const QString &userPath);

    [[nodiscard]] QString userPath() const { return path; }
    [[nodiscard]] QString portPath() const { return file(UserFile::kServerPort); }
    [[nodiscard]] QString pidPath() const { return file(UserFile::kServerPid); }
    [[nodiscard]] QString logPath() const { return file(UserFile::kServerLog); }
    [[nodiscard]] QString peersPath() const { return file(UserFile::kServerPeers); }
    [[nodiscard]] QString sessionsPath() const { return file(UserFile::kSessions); }
    [[nodiscard]] QString certificatePath() const;
    [[nodiscard]] QString keyPath() const;

    /** The directory of a session. The id must come from the server or from the disk, because it is not checked. */
    [[nodiscard]] QString sessionDirectory(const QString &id) const;

    /** The server as its files show it now. A server may write or remove them meanwhile. */
    [[nodiscard]] ServerStatus readStatus() const;

private:
    [[nodiscard]] ServerFacts readFacts() const;
    [[nodiscard]] QString file(QLatin1StringView name) const;

    QString path;
};
