// SPDX-License-Identifier: MIT
#pragma once

#include "fuzz/fakeagents.h"
#include "live/sessionstore.h"

#include <QByteArrayList>
#include <QFutureWatcher>
#include <QPointer>

class FakeDevice;
class Handler;

/** The directory of the sessions. Each object starts with an empty one. */
class EmptySessionsDirectory final
{
public:
    EmptySessionsDirectory();
    ~EmptySessionsDirectory();
    Q_DISABLE_COPY_MOVE(EmptySessionsDirectory)

    [[nodiscard]] static QString path();
};

/**
 * A connection to a server with all methods and two more. These do what a real server does by itself: "Tick" connects
 * waiting viewers and refreshes the sessions, "Idle" suspends sessions without a client. Used on the main thread.
 * Requests run only during finish() and the destructor.
 */
class FuzzedConnection final
{
public:
    FuzzedConnection();
    ~FuzzedConnection();
    Q_DISABLE_COPY_MOVE(FuzzedConnection)

    /** The peer sends @p bytes. */
    void feed(const QByteArray &bytes);
    /** The peer stops reading, or reads again. */
    void stall();
    void resume();
    /** The peer closes. After the next finish() nothing of the connection may be left. */
    void leave();
    [[nodiscard]] bool isLeft() const { return device.isNull(); }
    /** The server pushes an update of this size. */
    void update(qsizetype bytes);

    /** Runs until nothing more happens without the peer. */
    void finish();

    /** Whether the server has not closed the connection. */
    [[nodiscard]] bool isOpen() const;
    /** What the peer has received except updates, one element per write. */
    [[nodiscard]] QByteArrayList answers() const;
    /** Whether the peer has received the last update, if there was one. */
    [[nodiscard]] bool hasLastUpdate() const;

private:
    EmptySessionsDirectory directory;
    FakeAgents agents;
    SessionStore store;
    QPointer<FakeDevice> device;
    Handler *handler;            ///< a child of the device
    QFutureWatcherBase *watcher; ///< the handler's own
    int finishedRequests = 0;
    QByteArrayList updates;
};
