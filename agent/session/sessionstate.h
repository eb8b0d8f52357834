// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/passwordstore.h"

#include <QDateTime>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <chrono>
#include <functional>

class SessionLog;

/**
 * What the server wants to know about a session. Each function that changes it also writes the line of the log, so the
 * state that is served and the log cannot differ. Owned by the agent, used on the main thread only.
 */
class SessionState final
{
public:
    using Clock = std::function<QDateTime()>;

    /** @param log  outlives this object. @param clock  the local time; tests pass another one */
    explicit SessionState(SessionLog *log, Clock clock = &QDateTime::currentDateTime);
    ~SessionState() = default;
    Q_DISABLE_COPY_MOVE(SessionState)

    /** The session can be used from now on. */
    void setReady();
    /** Sets how long a password stays open that nobody uses. */
    void setPasswordLifetime(std::chrono::milliseconds lifetime);
    /** Adds a one-time password. */
    void offerPassword();
    /** Removes all passwords. */
    void expirePasswords();
    /** A client from @p address has used up @p password; empty: it needed none. */
    void clientAuthenticated(const QString &address, const QByteArray &password);
    /** All these clients left at the same time. Does nothing for an empty list. */
    void clientsDisconnected(const QStringList &addresses);
    void setScreenSize(const QSize &size);

    [[nodiscard]] PasswordStore *passwords() { return &openPasswords; }
    [[nodiscard]] bool isReady() const { return started.isValid(); }

    /**
     * One JSON object with Clients and Passwords. Started, LastConnect, LastDisconnect, ScreenWidth and ScreenHeight
     * are left out until they are known.
     */
    [[nodiscard]] QByteArray toJson() const;

private:
    void expireOverdue();
    [[nodiscard]] QDateTime timeAfter(const QDateTime &previous) const;

    SessionLog *log;
    Clock clock;
    PasswordStore openPasswords;
    QTimer passwordTimer; ///< active while a password is open
    QDateTime started;
    QDateTime lastConnect;
    QDateTime lastDisconnect;
    QSize screenSize;
    int clients = 0;
};
