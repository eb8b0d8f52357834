// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/passwordstore.h"

#include <QDateTime>
#include <QSize>
#include <QString>
#include <QStringList>

#include <functional>

class SessionLog;

/**
 * What the session server wants to know about a session, kept in one place so that the state that is served and the
 * events in the log cannot tell different stories: every change goes through a function here, which writes the
 * log line as well. Owned by the agent, used on the main thread only.
 */
class SessionState final
{
public:
    using Clock = std::function<QDateTime()>;

    /** @param log outlives this object. @param clock the local time; another one is for tests. */
    explicit SessionState(SessionLog *log, Clock clock = &QDateTime::currentDateTime);

    /** The session can be used from now on. */
    void setReady();
    /** Opens one more one-time password. */
    void offerPassword();
    /** Closes all open passwords. */
    void expirePasswords();
    /** A client from @p address came in and used up @p password. */
    void clientAuthenticated(const QString &address, const QByteArray &password);
    /** All these clients left, at one and the same time. Does nothing for an empty list. */
    void clientsDisconnected(const QStringList &addresses);
    void setScreenSize(const QSize &size);

    [[nodiscard]] PasswordStore *passwords() { return &openPasswords; }
    [[nodiscard]] bool isReady() const { return started.isValid(); }

    /**
     * One JSON object with Clients and Passwords, and once they are known Started, LastConnect, LastDisconnect,
     * ScreenWidth and ScreenHeight.
     */
    [[nodiscard]] QByteArray toJson() const;

private:
    [[nodiscard]] QDateTime timeAfter(const QDateTime &previous) const;

    SessionLog *log;
    Clock clock;
    PasswordStore openPasswords;
    QDateTime started;
    QDateTime lastConnect;
    QDateTime lastDisconnect;
    QSize screenSize;
    int clients = 0;
};
