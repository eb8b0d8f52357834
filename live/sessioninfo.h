// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

struct Session;

/** What clients see of one session, here or on a peer. A plain value. */
struct SessionInfo
{
    QString id;
    QUrl location; ///< the owning server's advertised URL; empty when it advertises none
    QString windowMode;
    QString name;
    QDateTime started;        ///< null until the agent is ready
    QDateTime lastConnect;    ///< null until a client has connected
    QDateTime lastDisconnect; ///< null until a client has disconnected
    QStringList permissions;  ///< what a client may do now: one of "connect", "retry", "disconnect"; "terminate"

    SessionInfo() = default;
    /** Describes the local session @p id of the server whose advertised URL is @p locationText. */
    SessionInfo(const QString &id, const QString &locationText, const Session &session);

    /** The description as an object that always has all eight members, all strings. */
    [[nodiscard]] Json::Value toJson() const;
    /**
     * Reads the description that a peer sent. A missing member stays empty.
     * @return nothing if @p value is not an object or one of the eight members is not a string
     */
    [[nodiscard]] static std::optional<SessionInfo> fromJson(const Json::Value &value);
};

/** The list in the form that clients get: an array, or null when it is empty. */
[[nodiscard]] Json::Value sessionListToJson(const QList<SessionInfo> &sessions);
