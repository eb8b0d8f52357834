// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"

#include <QObject>

#include <chrono>

/**
 * Delivers the server's lists of sessions, one after the other, over lost connections and restarts of the server. It
 * never starts a server, because the user may have ended it on purpose. Used on the main thread.
 */
class SessionFollower : public QObject
{
    Q_OBJECT

public:
    /**
     * @param context  with a connected client
     * @param patience  how long to try to reconnect; kNoDeadline: without end
     */
    SessionFollower(ClientContext *context, std::chrono::milliseconds patience, QObject *parent = nullptr);

    enum class Event {
        List,     ///< the sessions are set
        Lost,     ///< the connection is lost; call again to reconnect
        TimedOut, ///< nothing happened in time
        Woken,    ///< wake() was called
        Failed,   ///< the patience is over, or the server cannot be used; the failure is set
    };

    /** Waits for the next event. The first one is the current list. */
    [[nodiscard]] Event next(std::chrono::milliseconds timeout, SessionList *sessions, Failure *failure);

    /** Ends the running wait; without one, the next wait. */
    void wake();

signals:
    void woken();

private:
    void Client_sessionsUpdated(const Json::Value &value);
    bool reconnect(std::chrono::milliseconds timeout, Failure *failure);
    Event takeFirstList(SessionList *sessions, Failure *failure);

    ClientContext *context;
    const std::chrono::milliseconds patience;
    QList<SessionList> lists;  ///< received and not yet returned by next(), oldest first
    bool hasFirstList = false; ///< the first list over this connection was received
    bool hasReportedLoss = false;
    bool isWoken = false;
};
