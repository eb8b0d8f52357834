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
    QDateTime lastConnect;    ///< null until a client came
    QDateTime lastDisconnect; ///< null until a client went
    QStringList permissions;  ///< what a client may do now: one of "connect", "retry", "disconnect"; "terminate"

    SessionInfo() = default;
    /** Describes the local session @p id of the server that is reached at @p locationText. */
    SessionInfo(const QString &id, const QString &locationText, const Session &session);

    /** The description as an object of eight strings, all of them always there. */
    [[nodiscard]] Json::Value toJson() const;
    /**
     * Reads the description that a peer sent; what is missing there stays empty.
     * @return nothing for what is no object, or has one of the eight members with a value that is no string
     */
    [[nodiscard]] static std::optional<SessionInfo> fromJson(const Json::Value &value);
};

/** The list as clients get it: an array, or null when it is empty. */
[[nodiscard]] Json::Value sessionListToJson(const QList<SessionInfo> &sessions);
