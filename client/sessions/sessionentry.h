// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/** The state of a session, as its user sees it. */
enum class EntryState {
    Connected, ///< a viewer is connected
    Offered,   ///< a password is open, and no viewer is connected
    Suspended, ///< no viewer is connected and no password is open
    Unknown,   ///< the server sent permissions that this program does not know
};

[[nodiscard]] QString stateName(EntryState state);
[[nodiscard]] std::optional<EntryState> stateFromName(const QString &name);

/** One session as the server lists it. A plain value. */
struct SessionEntry
{
    QString id;
    QString location; ///< URL of its host; empty for the host of the server
    QString windowMode;
    QString name;
    QString started;        ///< yyyy-MM-ddThh:mm:ss in its host's local time; empty if not started
    QString lastConnect;    ///< in the same form
    QString lastDisconnect; ///< in the same form
    QStringList permissions;
    bool trusted = true; ///< false: another host has reported it than the one that its location names; see markTrust()

    [[nodiscard]] EntryState state() const;

    /** The host that the location names; empty for the host of the server. */
    [[nodiscard]] QString host() const;

    /** The form that --json prints. It is documented, so it must stay. */
    [[nodiscard]] Json::Value toJson() const;

    /** Null if @p value is not a session; members of a wrong type count as missing. */
    [[nodiscard]] static std::optional<SessionEntry> fromJson(const Json::Value &value);

    bool operator==(const SessionEntry &) const = default;
};

using SessionList = QList<SessionEntry>;

/** The sessions of a list that the server sent. It sends null if there are none. */
[[nodiscard]] SessionList entriesFromJson(const Json::Value &value);

/** An array, even without sessions. */
[[nodiscard]] Json::Value entriesToJson(const SessionList &sessions);

/** How many digits of an id distinguish all sessions of the list; at least 8. */
[[nodiscard]] int shortIdLength(const SessionList &sessions);
