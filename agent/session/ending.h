// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QSet>
#include <QTimer>

#include <functional>

#include <sys/types.h>

class ChildWatcher;
class XServer;

/** How long the end of a session may take. A value; the defaults are the product's. */
struct EndingLimits
{
    std::chrono::milliseconds polite{3000}; ///< between SIGTERM and SIGKILL for the applications
    std::chrono::milliseconds forced{5000}; ///< from the first SIGKILL, before the X server is ended anyway
};

/**
 * Ends what runs in a session, in order: the applications, by SIGTERM and then by SIGKILL, and when none of our
 * descendants is left, the X server. An application may have started anything, and anything may have left its
 * parent; as long as this process is the subreaper of its children, all of it is found.
 * Owned by the agent, lives on the main thread, started at most once.
 */
class Ending final : public QObject
{
    Q_OBJECT

public:
    /** @param xServer and @param watcher outlive this object */
    Ending(XServer *xServer, ChildWatcher *watcher, EndingLimits limits = {}, QObject *parent = nullptr);

    /** finished() follows, from the event loop. */
    void start();

signals:
    /** Nothing is left. Emitted once. */
    void finished();

private:
    void force();
    void lookAround();
    void askNewOrphans(const QList<pid_t> &left);
    void endXServer();
    void finish();

    XServer *xServer;
    EndingLimits limits;
    QSet<pid_t> asked; ///< to end, by SIGTERM
    QTimer pollTimer;
    QTimer politeTimer;
    QTimer forcedTimer;
    bool isStarted = false;
    bool isForced = false;
    bool wasEmpty = false; ///< at the last look
    bool isEndingXServer = false;
    bool isFinished = false;
};
