// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"

#include <QObject>

#include <chrono>

/**
 * Follows the sessions of the server over lost connections and restarts, one list after the other. It never starts
 * a server: somebody has ended it. Used on the main thread.
 */
class SessionFollower : public QObject
{
    Q_OBJECT

public:
    /**
     * @param context  with a connected client
     * @param patience  how long to look for a server that has gone; kNoDeadline: for ever
     */
    SessionFollower(ClientContext *context, std::chrono::milliseconds patience, QObject *parent = nullptr);

    enum class Event {
        List,     ///< the sessions are set
        Lost,     ///< the connection is lost; call again to look for the server
        TimedOut, ///< nothing came in time
        Woken,    ///< somebody has called wake()
        Failed,   ///< patience is over, or the server cannot be used; the failure is set
    };

    /** The next thing that happens. The first one is the list as it is now. */
    [[nodiscard]] Event next(std::chrono::milliseconds timeout, SessionList *sessions, Failure *failure);

    /** Ends the wait that goes on, or the next one. */
    void wake();

signals:
    void woken();

private:
    void Client_sessionsUpdated(const Json::Value &value);
    bool reconnect(std::chrono::milliseconds timeout, Failure *failure);
    Event takeFirstList(SessionList *sessions, Failure *failure);

    ClientContext *context;
    const std::chrono::milliseconds patience;
    QList<SessionList> lists; ///< what has arrived and was not taken yet, oldest first
    bool knowsList = false;   ///< a list has been taken over this connection
    bool toldLoss = false;
    bool isWoken = false;
};
