// SPDX-License-Identifier: MIT
#pragma once

#include <xcb/xcb.h>

#include <QByteArray>
#include <QObject>
#include <QSize>
#include <QString>

#include <memory>

class QSocketNotifier;
class QThread;

/**
 * Follows what happens to a display's screen, as a client of its X server: its size, and whether a window manager looks
 * after it. The X library waits for the server's answers
 * while it connects, so that happens on a thread of its own; what comes later are events, which are
 * taken on the main thread without waiting. Owned by the agent, lives on the main thread, started at most once.
 */
class ScreenWatcher final : public QObject
{
    Q_OBJECT

public:
    explicit ScreenWatcher(QObject *parent = nullptr);
    /** Breaks a connection that is still being made. Does not wait for the X server. */
    ~ScreenWatcher() override;

    /** Connects to the local display @p display. started() or failed() follows. */
    void start(quint16 display, const QByteArray &cookie);

signals:
    /** Connected; @p size is the screen's. */
    void started(const QSize &size);
    /** Not connected. @p error is one sentence. */
    void failed(const QString &error);
    /** The screen has this size from now on. */
    void resized(const QSize &size);
    /** From now on, a window manager decides on every window that appears. */
    void windowManagerStarted();

private:
    struct Connection;

    void Thread_finished();
    void takeEvents();
    void takeEvent(const xcb_generic_event_t *event);

    std::unique_ptr<Connection> connection;
    std::unique_ptr<QThread> thread;
    std::unique_ptr<QSocketNotifier> notifier;
};
