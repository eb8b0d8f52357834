// SPDX-License-Identifier: MIT
#include "base/settings.h"

#include "contract/settingkeys.h"
#include "support/pathtemplate.h"

#include <QDir>
#include <QHostInfo>
#include <QSettings>

#include <array>

using namespace Qt::StringLiterals;

namespace {

QVariant defaultUserPath()
{
    return QDir(QDir::homePath()).filePath(u".zarvo_server/@HOST@"_s);
}

QVariant defaultSciUrl()
{
    return u"ssh://%1@%2:22/zarvo_sci"_s.arg(qEnvironmentVariable("USER"), QHostInfo::localHostName());
}

template <int number>
QVariant fixedNumber()
{
    return number;
}

constexpr std::array kTable = {
    SettingRow{SettingKey::kUserPath, &Settings::userPath, defaultUserPath, true},
    SettingRow{SettingKey::kLogLevel, &Settings::logLevel, [] { return QVariant(QString()); }},
    SettingRow{SettingKey::kDisplayBase, &Settings::displayBase, fixedNumber<100>},
    SettingRow{SettingKey::kDisplayLimit, &Settings::displayLimit, fixedNumber<100>},
    SettingRow{SettingKey::kSciUrl, &Settings::sciUrl, defaultSciUrl, true},
    SettingRow{SettingKey::kSuspendTimeout, &Settings::suspendTimeout, fixedNumber<-1>},
    SettingRow{SettingKey::kListenPort, &Settings::listenPort, fixedNumber<0>},
    SettingRow{SettingKey::kBroadcastPort, &Settings::broadcastPort, fixedNumber<0>},
    SettingRow{SettingKey::kBroadcastAddress, &Settings::broadcastAddress,
               [] { return QVariant(u"255.255.255.255"_s); }},
};

/** Puts a value into its member of @p settings, converted to the member's type. */
void take(const SettingRow &row, const QVariant &value, Settings *settings)
{
    if (const auto *text = std::get_if<QString Settings::*>(&row.member)) {
        settings->*(*text) = row.isTemplate ? expandPathTemplate(value.toString()) : value.toString();
    } else if (const auto *number = std::get_if<quint16 Settings::*>(&row.member)) {
        settings->*(*number) = static_cast<quint16>(value.toUInt());
    } else {
        settings->*std::get<int Settings::*>(row.member) = value.toInt();
    }
}

} // namespace

Settings Settings::read()
{
    Settings settings{};
    for (const SettingRow &row : settingTable()) {
        take(row, QSettings().value(row.key, row.defaultValue()), &settings);
    }
    return settings;
}

QString SettingRow::text(const Settings &settings) const
{
    if (const auto *text = std::get_if<QString Settings::*>(&member)) {
        return settings.*(*text);
    }
    if (const auto *number = std::get_if<quint16 Settings::*>(&member)) {
        return QString::number(settings.*(*number));
    }
    return QString::number(settings.*std::get<int Settings::*>(member));
}

std::span<const SettingRow> settingTable()
{
    return kTable;
}
