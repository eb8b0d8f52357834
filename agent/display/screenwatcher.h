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
 * Watches a display's screen as a client of its X server: the screen's size, and whether there is a window manager.
 * libxcb blocks while it connects, so it connects on a thread of its own. Events are read on the main thread, where
 * nothing blocks. Owned by the agent, lives on the main thread, started at most once.
 */
class ScreenWatcher final : public QObject
{
    Q_OBJECT

public:
    explicit ScreenWatcher(QObject *parent = nullptr);
    /** Breaks off a connection attempt. Does not wait for the X server. */
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
    /** A window manager manages every window that appears from now on. */
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
