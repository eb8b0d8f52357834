// SPDX-License-Identifier: MIT
#include "base/agentsettings.h"

#include "contract/application.h"
#include "contract/settingkeys.h"

#include <QSettings>

#include <array>

using namespace Qt::StringLiterals;

namespace {

constexpr auto kAny = "Any"_L1;
constexpr auto kNone = "None"_L1;
/** A week. Longer is no protection any more, and a timer takes no more than 24 days. */
constexpr int kMostMinutes = 7 * 24 * 60;

constexpr std::array kTable = {
    AgentSettingRow{AgentSettingKey::kAllowPlainFromNetwork, "false"_L1},
    AgentSettingRow{AgentSettingKey::kListenAddress, kAny},
    AgentSettingRow{AgentSettingKey::kAllowLocalUsers, "false"_L1},
    AgentSettingRow{AgentSettingKey::kPasswordMinutes, "10"_L1},
};

/** Qt completes an IPv4 address of fewer numbers, and would read "0" as all addresses. */
bool isAddress(const QString &text)
{
    constexpr qsizetype kDots = 3;
    const QHostAddress address(text);
    return !address.isNull() && (address.protocol() != QAbstractSocket::IPv4Protocol || text.count(u'.') == kDots);
}

/** Reads one value after the other and collects what is wrong. */
class Reader final
{
public:
    explicit Reader(QStringList *problems_)
        : problems(problems_)
    {
    }

    /** Qt would take each text for true that it does not know, "no" as well. */
    bool truth(QLatin1StringView key)
    {
        const QString text = value(key, u"false"_s);
        if (text.compare("true"_L1, Qt::CaseInsensitive) == 0 || text == "1"_L1) {
            return true;
        }
        if (text.compare("false"_L1, Qt::CaseInsensitive) != 0 && text != "0"_L1) {
            report(key, text, u"it is neither true nor false, so false is used"_s);
        }
        return false;
    }

    std::chrono::minutes minutes(QLatin1StringView key, std::chrono::minutes fallback)
    {
        const QString text = value(key, QString::number(fallback.count()));
        bool isNumber = false;
        const int number = text.toInt(&isNumber);
        if (isNumber && number >= 1 && number <= kMostMinutes) {
            return std::chrono::minutes(number);
        }
        report(key, text, u"it is no number from 1 to %1, so %2 is used"_s.arg(kMostMinutes).arg(fallback.count()));
        return fallback;
    }

    QString address(QLatin1StringView key)
    {
        const QString text = value(key, kAny);
        if (text.compare(kAny, Qt::CaseInsensitive) == 0) {
            return kAny;
        }
        if (text.compare(kNone, Qt::CaseInsensitive) == 0) {
            return kNone;
        }
        if (!isAddress(text)) {
            report(key, text, u"it is neither an address nor Any or None, so 127.0.0.1 is used"_s);
            return u"127.0.0.1"_s;
        }
        return text;
    }

private:
    QString value(QLatin1StringView key, const QString &fallback) const
    {
        return settings.value(key, fallback).toString().trimmed();
    }

    void report(QLatin1StringView key, const QString &text, const QString &problem)
    {
        problems->append(u"The setting %1 is \"%2\": %3"_s.arg(key, text, problem));
    }

    QSettings settings{QSettings::NativeFormat, QSettings::UserScope, kOrganizationName, kAgentName};
    QStringList *problems;
};

} // namespace

std::optional<QHostAddress> AgentSettings::address() const
{
    if (listenAddress == kNone) {
        return std::nullopt;
    }
    return listenAddress == kAny ? QHostAddress(QHostAddress::Any) : QHostAddress(listenAddress);
}

AgentSettings AgentSettings::read(QStringList *problems)
{
    Reader reader(problems);
    AgentSettings settings;
    settings.allowPlainFromNetwork = reader.truth(AgentSettingKey::kAllowPlainFromNetwork);
    settings.listenAddress = reader.address(AgentSettingKey::kListenAddress);
    settings.allowLocalUsers = reader.truth(AgentSettingKey::kAllowLocalUsers);
    settings.passwordMinutes = reader.minutes(AgentSettingKey::kPasswordMinutes, settings.passwordMinutes);
    return settings;
}

std::span<const AgentSettingRow> agentSettingTable()
{
    return kTable;
}

QString agentSettingsPath()
{
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, kOrganizationName, kAgentName).fileName();
}
