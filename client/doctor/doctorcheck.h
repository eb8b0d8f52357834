// SPDX-License-Identifier: MIT
#pragma once

#include "base/settings.h"
#include "client/server/serverfiles.h"

#include <QList>
#include <QSettings>
#include <QString>
#include <QVariantMap>

#include <chrono>

/** One line of the doctor's findings. */
struct Finding
{
    enum class Level { Ok, Warn, Fail };

    Level level;
    QString text;   ///< what was found
    QString remedy; ///< what to do about it; empty for Ok
};

[[nodiscard]] QString levelName(Finding::Level level);

[[nodiscard]] Finding fine(const QString &text);
[[nodiscard]] Finding warning(const QString &text, const QString &remedy);
[[nodiscard]] Finding failed(const QString &text, const QString &remedy);

/** What the checks look at; the paths are the system's, and others in tests. */
struct DoctorInput
{
    Settings settings;
    QVariantMap rawSettings; ///< as they stand in the file
    QString settingsPath;
    QSettings::Status settingsStatus = QSettings::NoError;
    ServerFiles files;
    QString searchPath; ///< that of a server which we start
    QString userName;   ///< as the system knows the user
    QString temporaryPath = QStringLiteral("/tmp");
    QString networkPath = QStringLiteral("/proc/sys/net/ipv4");
    QString processesPath = QStringLiteral("/proc");
    QString systemPath = QString();                                   ///< what stands before /etc, /run, /usr and /var
    std::chrono::milliseconds settlingTime = std::chrono::seconds(5); ///< for a server that starts or ends
};

/** A check, under the title that its lines carry. It only looks, and may find several things or, fine, one. */
struct DoctorCheck
{
    const char *title;
    QList<Finding> (*run)(const DoctorInput &input);
};

/** All checks in the order in which they are reported. */
[[nodiscard]] QList<DoctorCheck> doctorChecks();

/** The text of a small file; empty when it cannot be read. */
[[nodiscard]] QString smallFileText(const QString &path);

/*
 * The checks. Each is in the source file that is named after its subject.
 */
[[nodiscard]] QList<Finding> checkUserPath(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkCertificate(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkServerProcess(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkSettings(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkBroadcastAddress(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkPrograms(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkViewer(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkDisplays(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkSocketDirectory(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkPortRange(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkLogout(const DoctorInput &input);
