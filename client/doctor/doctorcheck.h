// SPDX-License-Identifier: MIT
#pragma once

#include "base/agentsettings.h"
#include "base/settings.h"
#include "client/server/serverfiles.h"
#include "support/kernelfeatures.h"

#include <QList>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <chrono>

/** One line that a check reports. */
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

/** A file of settings as it is written. */
struct SettingsFile
{
    QString path = {};
    QVariantMap values = {}; ///< the texts
    QSettings::Status status = QSettings::NoError;

    [[nodiscard]] static SettingsFile read(const QSettings &settings);
};

/** What the checks read. The paths are the system's; tests set others. */
struct DoctorInput
{
    Settings settings;
    SettingsFile settingsFile = {};
    AgentSettings agentSettings = {};
    QStringList agentProblems = {}; ///< with the values in the agent's file
    SettingsFile agentFile = {};
    ServerFiles files;
    QString searchPath; ///< of a server that we start
    QString userName;   ///< the user's login name
    QString temporaryPath = QStringLiteral("/tmp");
    QString networkPath = QStringLiteral("/proc/sys/net/ipv4");
    QString processesPath = QStringLiteral("/proc");
    QString systemPath = QString(); ///< the prefix of /etc, /run, /usr and /var
    bool canFilterSystemCalls = ::canFilterSystemCalls();
    bool canHideFiles = ::canHideFiles();
    std::chrono::milliseconds settlingTime = std::chrono::seconds(5); ///< for a server that starts or ends
};

/** A check and the title of its lines. It changes nothing, and returns at least one finding. */
struct DoctorCheck
{
    const char *title;
    QList<Finding> (*run)(const DoctorInput &input);
};

/** All checks, in the order of the report. */
[[nodiscard]] QList<DoctorCheck> doctorChecks();

/** What is wrong with the file itself, and its keys that are none of @p keys. */
[[nodiscard]] QList<Finding> findUnusableSettings(const SettingsFile &file, const QStringList &keys);

/** The text of a small file; empty if it cannot be read. */
[[nodiscard]] QString smallFileText(const QString &path);

/*
 * The checks. Each is in the source file that is named after its subject.
 */
[[nodiscard]] QList<Finding> checkUserPath(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkCertificate(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkServerProcess(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkSettings(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkAgentSettings(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkConfinement(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkBroadcastAddress(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkPrograms(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkViewer(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkDisplays(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkSocketDirectory(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkPortRange(const DoctorInput &input);
[[nodiscard]] QList<Finding> checkLogout(const DoctorInput &input);
