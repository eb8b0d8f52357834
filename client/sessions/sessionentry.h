// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/** What a session is doing, as far as its users are concerned. */
enum class SessionState {
    Connected, ///< a viewer is connected
    Offered,   ///< a password waits for a viewer
    Suspended, ///< nobody is connected and no password is open
    Unknown,   ///< the server says something that this program does not know
};

[[nodiscard]] QString stateName(SessionState state);
[[nodiscard]] std::optional<SessionState> stateFromName(const QString &name);

/** One session as the server lists it. A plain value. */
struct SessionEntry
{
    QString id;
    QString location; ///< URL of its host; empty for the server's own
    QString windowMode;
    QString name;
    QString started;        ///< yyyy-MM-ddThh:mm:ss in its host's local time; empty: not yet
    QString lastConnect;    ///< the same
    QString lastDisconnect; ///< the same
    QStringList permissions;

    [[nodiscard]] SessionState state() const;

    /** The host that the location names; empty for the server's own. */
    [[nodiscard]] QString host() const;

    /** The form that --json prints: the documented and stable one. */
    [[nodiscard]] Json::Value toJson() const;

    /** Nothing when @p value is no session; members of a wrong type count as missing. */
    [[nodiscard]] static std::optional<SessionEntry> fromJson(const Json::Value &value);

    bool operator==(const SessionEntry &) const = default;
};

using SessionList = QList<SessionEntry>;

/** The sessions of a listing; null, which the server sends for none, is an empty list. */
[[nodiscard]] SessionList sessionListFromJson(const Json::Value &value);

/** Always an array, also without sessions. */
[[nodiscard]] Json::Value sessionListToJson(const SessionList &sessions);

/** How many digits of an id are enough to tell the sessions of the list apart; at least 8. */
[[nodiscard]] int shortIdLength(const SessionList &sessions);
