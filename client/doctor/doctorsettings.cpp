// SPDX-License-Identifier: MIT
#include "client/doctor/doctorcheck.h"
#include "contract/loglevel.h"
#include "contract/sessiondirectory.h"
#include "contract/settingkeys.h"

#include <QFileInfo>
#include <QHostAddress>

#include <variant>

using namespace Qt::StringLiterals;

namespace {

/** A higher display would need a port above 65535. */
constexpr int kHighestDisplay = 65535 - kFirstAgentPort;

class SettingsInspection
{
public:
    explicit SettingsInspection(const DoctorInput &input_)
        : input(input_)
    {
    }

    QList<Finding> run()
    {
        QStringList keys;
        for (const SettingRow &row : settingTable()) {
            keys.append(row.key);
        }
        findings = findUnusableSettings(input.settingsFile, keys);
        numbers<quint16>();
        numbers<int>();
        suspendTimeout();
        logLevel();
        displayRange();
        if (findings.isEmpty()) {
            findings.append(fine(input.settingsFile.values.isEmpty()
                                     ? u"All settings have their defaults"_s
                                     : u"\"%1\" is valid"_s.arg(input.settingsFile.path)));
        }
        return findings;
    }

private:
    void add(const QString &text)
    {
        findings.append(warning(text, u"Correct it in \"%1\""_s.arg(input.settingsFile.path)));
    }

    /** Checks the numbers of this type: QSettings replaces text that is no number, and 16 bits cut large ones. */
    template <typename Number>
    void numbers()
    {
        for (const SettingRow &row : settingTable()) {
            if (std::holds_alternative<Number Settings::*>(row.member) && input.settingsFile.values.contains(row.key)) {
                number(row);
            }
        }
    }

    void number(const SettingRow &row)
    {
        const QString text = input.settingsFile.values.value(row.key).toString();
        const QString effective = row.text(input.settings);
        if (text != effective) {
            add(u"%1 is \"%2\", which becomes %3"_s.arg(row.key, text, effective));
        }
    }

    void suspendTimeout()
    {
        if (input.settingsFile.values.contains(SettingKey::kSuspendTimeout) && input.settings.suspendTimeout == 0) {
            add(u"SuspendTimeout is 0: sessions end as soon as no viewer is connected"_s);
        }
    }

    void logLevel()
    {
        const QString level = input.settings.logLevel;
        if (!level.isEmpty() && !logLevelFromName(level)) {
            add(u"LogLevel is \"%1\", which becomes Info"_s.arg(level));
        }
    }

    void displayRange()
    {
        const int end = input.settings.displayBase + input.settings.displayLimit;
        if (input.settings.displayLimit == 0) {
            findings.append(failed(u"DisplayLimit is 0: no session can have a display"_s,
                                   u"Correct it in \"%1\""_s.arg(input.settingsFile.path)));
        } else if (end - 1 > kHighestDisplay) {
            add(u"Displays go up to %1, but only displays up to %2 have a port"_s.arg(end - 1).arg(kHighestDisplay));
        }
    }

    const DoctorInput &input;
    QList<Finding> findings;
};

} // namespace

SettingsFile SettingsFile::read(const QSettings &settings)
{
    SettingsFile file{.path = settings.fileName(), .status = settings.status()};
    for (const QString &key : settings.allKeys()) {
        file.values.insert(key, settings.value(key));
    }
    return file;
}

QList<Finding> findUnusableSettings(const SettingsFile &file, const QStringList &keys)
{
    QList<Finding> findings;
    const QString correct = u"Correct it in \"%1\""_s.arg(file.path);
    const QFileInfo found(file.path);
    if (found.exists() && (!found.isFile() || !found.isReadable() || file.status == QSettings::AccessError)) {
        findings.append(failed(u"\"%1\" cannot be read: all settings have their defaults"_s.arg(file.path),
                               u"Make it a readable file"_s));
    } else if (file.status == QSettings::FormatError) {
        findings.append(warning(u"\"%1\" is broken: invalid lines are ignored"_s.arg(file.path), correct));
    }
    for (const QString &key : file.values.keys()) {
        if (!keys.contains(key)) {
            findings.append(warning(u"There is no setting %1; it is ignored"_s.arg(key), correct));
        }
    }
    return findings;
}

QList<Finding> checkSettings(const DoctorInput &input)
{
    return SettingsInspection(input).run();
}

QList<Finding> checkBroadcastAddress(const DoctorInput &input)
{
    const QString text = input.settings.broadcastAddress;
    if (QHostAddress address; !address.setAddress(text)) {
        return {failed(u"BroadcastAddress \"%1\" is not an address: the server does not start"_s.arg(text),
                       u"Correct it in \"%1\""_s.arg(input.settingsFile.path))};
    }
    if (input.settings.broadcastPort == 0) {
        return {fine(u"Off: this server does not look for other servers"_s)};
    }
    return {fine(u"The server looks for other servers at %1, port %2"_s.arg(
        text, QString::number(input.settings.broadcastPort)))};
}
