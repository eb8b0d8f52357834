// SPDX-License-Identifier: MIT
#pragma once

#include "client/doctor/doctorcheck.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>

/** Folders in place of the system's, for the doctor's checks. */
class DoctorSurroundings
{
public:
    DoctorSurroundings()
    {
        for (const char *path : {"zarvo/host", "tmp/.X11-unix", "net", "bin"}) {
            QDir(folder.path()).mkpath(QString::fromLatin1(path));
        }
        QFile::setPermissions(path("zarvo/host"),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    }

    [[nodiscard]] QString path(const char *name) const { return folder.filePath(QString::fromLatin1(name)); }

    [[nodiscard]] DoctorInput input() const
    {
        Settings settings{};
        settings.userPath = path("zarvo/host");
        settings.displayBase = 100;
        settings.displayLimit = 100;
        settings.suspendTimeout = -1;
        settings.broadcastAddress = QStringLiteral("255.255.255.255");
        return {.settings = settings,
                .settingsFile = {.path = path("settings.conf")},
                .agentFile = {.path = path("agent.conf")},
                .files = ServerFiles(settings.userPath),
                .searchPath = path("bin"),
                .userName = QStringLiteral("anna"),
                .temporaryPath = path("tmp"),
                .networkPath = path("net"),
                .processesPath = path("proc"),
                .systemPath = folder.path(),
                .canFilterSystemCalls = true,
                .canHideFiles = true,
                .settlingTime = std::chrono::milliseconds(100)};
    }

private:
    QTemporaryDir folder;
};

/** Each finding as one line: the level and the sentence. */
[[nodiscard]] inline QStringList texts(const QList<Finding> &findings)
{
    QStringList lines;
    for (const Finding &finding : findings) {
        lines.append(levelName(finding.level) + u' ' + finding.text);
    }
    return lines;
}

/** Whether all findings have a remedy, except for those that are Ok. */
[[nodiscard]] inline bool haveRemedies(const QList<Finding> &findings)
{
    return std::all_of(findings.begin(), findings.end(), [](const Finding &finding) {
        return finding.remedy.isEmpty() == (finding.level == Finding::Level::Ok);
    });
}
