// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <chrono>

#include <sys/types.h>

class ApplicationRunner;
class ChildWatcher;

/**
 * Starts the window manager of a rootless session and waits until it manages windows, because it does not maximise the
 * ones that it finds. The application is usable without a window manager, so no failure here ends the session.
 * Owned by the agent, lives on the main thread, started at most once.
 */
class WindowManagerStart final : public QObject
{
    Q_OBJECT

public:
    /** @param applications and @param watcher outlive this object */
    WindowManagerStart(ApplicationRunner *applications, ChildWatcher *watcher, QObject *parent = nullptr);

    /**
     * Starts it. settled() follows unless cancel() is called before. When no window manager can be started, settled()
     * is emitted before start() returns.
     *
     * @param settingsPath  absolute; for the settings that we write for it
     * @param patience      how long to wait for it
     */
    void start(const QString &settingsPath, std::chrono::milliseconds patience);

    /** To be called when a window manager manages the windows of the display. */
    void setManaging();

    void cancel();

signals:
    /** There is a window manager, or there will be none. What is wrong is logged. Emitted at most once. */
    void settled();

private:
    [[nodiscard]] bool startProgram(const QString &settingsPath, QString *error);
    void Watcher_ended(pid_t pid);
    void settle(const QString &problem);

    ApplicationRunner *applications;
    pid_t process = -1;
    QTimer deadline; ///< active while we wait
};
