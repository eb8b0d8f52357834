// SPDX-License-Identifier: MIT
#include "base/settings.h"

#include "contract/settingkeys.h"
#include "support/pathtemplate.h"

#include <QDir>
#include <QHostInfo>
#include <QSettings>

#include <algorithm>
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

static_assert(std::ranges::all_of(kTable,
                                  [](const SettingRow &row) {
                                      return !row.isTemplate || std::holds_alternative<QString Settings::*>(row.member);
                                  }),
              "only texts have placeholders");

/** One function for each type of a member. std::visit() does not compile if the function for a type is missing. */
template <typename... Functions>
struct Overloaded : Functions...
{
    using Functions::operator()...;
};

template <typename... Functions>
Overloaded(Functions...) -> Overloaded<Functions...>;

/** Puts a value into its member of @p settings, converted to the member's type. */
void take(const SettingRow &row, const QVariant &value, Settings *settings)
{
    std::visit(Overloaded{
                   [&](QString Settings::*text) {
                       settings->*text = row.isTemplate ? expandPathTemplate(value.toString()) : value.toString();
                   },
                   [&](quint16 Settings::*number) { settings->*number = static_cast<quint16>(value.toUInt()); },
                   [&](int Settings::*number) { settings->*number = value.toInt(); },
               },
               row.member);
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
    return std::visit(Overloaded{
                          [&](QString Settings::*text) { return settings.*text; },
                          [&](quint16 Settings::*number) { return QString::number(settings.*number); },
                          [&](int Settings::*number) { return QString::number(settings.*number); },
                      },
                      member);
}

std::span<const SettingRow> settingTable()
{
    return kTable;
}
