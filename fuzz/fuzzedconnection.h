// SPDX-License-Identifier: MIT
#pragma once

#include "fuzz/fakeagents.h"
#include "live/sessionstore.h"

#include <QByteArrayList>
#include <QFutureWatcher>
#include <QPointer>

class FakeDevice;
class Handler;

/** The directory of the sessions, empty again with every new object. */
class EmptySessionsDirectory final
{
public:
    EmptySessionsDirectory();
    ~EmptySessionsDirectory();
    Q_DISABLE_COPY_MOVE(EmptySessionsDirectory)

    [[nodiscard]] static QString path();
};

/**
 * One connection to a server of its own, which has all methods and two more, for what it does by itself at moments that
 * the peer does not decide about: "Tick", the refresh, before which waiting viewers connect, and "Idle", the end of
 * sessions without a client. Used on the main thread; nothing of it runs but in finish() and the destructor.
 */
class FuzzedConnection final
{
public:
    FuzzedConnection();
    ~FuzzedConnection();
    Q_DISABLE_COPY_MOVE(FuzzedConnection)

    /** The peer sends this. */
    void feed(const QByteArray &bytes);
    /** The peer does not read any more, or reads on. */
    void stall();
    void resume();
    /** The peer is gone: after the next finish() nothing of its connection may be left. */
    void leave();
    [[nodiscard]] bool isLeft() const { return device.isNull(); }
    /** The server has news for the peer, which are of this size. */
    void update(qsizetype bytes);

    /** Until nothing more happens without the peer. */
    void finish();

    /** Whether the server has not closed it. */
    [[nodiscard]] bool isOpen() const;
    /** What the peer has got but for the news, an element for each write. */
    [[nodiscard]] QByteArrayList answers() const;
    /** Whether the peer has got the last news, if there were any. */
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
