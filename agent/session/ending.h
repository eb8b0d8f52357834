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
    std::chrono::milliseconds terminate{3000}; ///< between SIGTERM and SIGKILL for the applications
    std::chrono::milliseconds kill{5000};      ///< between the first SIGKILL and the end of the X server
};

/**
 * Ends what runs in a session, in this order: the applications and everything that they have started, by SIGTERM and
 * then by SIGKILL, and after them the X server. Finds also daemons that have left their parent, because this process is
 * the subreaper of its children. Owned by the agent, lives on the main thread, started at most once.
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
    void beginKilling();
    void look();
    void terminateNewOrphans(const QList<pid_t> &left);
    void endXServer();
    void finish();

    XServer *xServer;
    EndingLimits limits;
    QSet<pid_t> signalled; ///< have got SIGTERM
    QTimer pollTimer;
    QTimer terminateTimer;
    QTimer killTimer;
    bool isStarted = false;
    bool isKilling = false;
    bool wasEmpty = false; ///< whether the last look found nothing
    bool isEndingXServer = false;
    bool isFinished = false;
};
