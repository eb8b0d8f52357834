// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>
#include <QString>
#include <QVariant>
#include <QtGlobal>

#include <span>
#include <variant>

/**
 * What the user can configure, in the native settings file of the application. A plain value. settingTable() has a row
 * for each member.
 */
struct Settings
{
    QString userPath;         ///< base directory of this host's state, expanded
    QString logLevel;         ///< a level's name; anything else means Info
    quint16 displayBase;      ///< first display number of new sessions
    quint16 displayLimit;     ///< how many display numbers there are
    QString sciUrl;           ///< where peers and clients find the sessions of this host, expanded
    int suspendTimeout;       ///< minutes without a client until a session is ended; negative: never
    quint16 listenPort;       ///< TCP; 0 lets the system choose
    quint16 broadcastPort;    ///< UDP; 0 turns discovery off
    QString broadcastAddress; ///< where announcements are sent

    /** The end of the display range, in 16 bits, where it may wrap around. */
    [[nodiscard]] quint16 displayEnd() const { return static_cast<quint16>(displayBase + displayLimit); }

    /** Reads everything once. Called on the main thread after nameApplication(). */
    [[nodiscard]] static Settings read();
};

/** One setting. */
struct SettingRow
{
    /** Where the value goes. Its type is the setting's: quint16 keeps the low 16 bits of a number without a warning. */
    using Member = std::variant<QString Settings::*, quint16 Settings::*, int Settings::*>;

    QLatin1StringView key;
    Member member;
    QVariant (*defaultValue)(); ///< before placeholders are filled in
    bool isTemplate = false;    ///< whether expandPathTemplate() fills in placeholders, also in the default

    /** The value in @p settings; a number as decimal text. */
    [[nodiscard]] QString text(const Settings &settings) const;
};

/** All settings, in the order in which they are read. Callable from any thread. */
[[nodiscard]] std::span<const SettingRow> settingTable();
