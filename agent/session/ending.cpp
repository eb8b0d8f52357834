// SPDX-License-Identifier: MIT
#include "agent/session/ending.h"

#include "agent/applications/childwatcher.h"
#include "agent/applications/processtree.h"
#include "agent/display/xserver.h"
#include "base/logging.h"

#include <chrono>
#include <csignal>

#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// A process below an application that dies is not our child and tells us nothing, so we look.
constexpr auto kPollInterval = 20ms;

} // namespace

Ending::Ending(XServer *xServer_, ChildWatcher *watcher, EndingLimits limits_, QObject *parent)
    : QObject(parent)
    , xServer(xServer_)
    , limits(limits_)
{
    connect(watcher, &ChildWatcher::ended, this, [this] {
        if (isStarted && !isEndingXServer) {
            pollTimer.start(0ms);
        }
    });
    connect(xServer, &XServer::ended, this, [this] {
        if (isEndingXServer) {
            finish();
        }
    });
    connect(&pollTimer, &QTimer::timeout, this, &Ending::lookAround);
    connect(&politeTimer, &QTimer::timeout, this, &Ending::force);
    connect(&forcedTimer, &QTimer::timeout, this, &Ending::endXServer);
    pollTimer.setSingleShot(true);
    politeTimer.setSingleShot(true);
    forcedTimer.setSingleShot(true);
}

void Ending::start()
{
    isStarted = true;
    politeTimer.start(limits.polite);
    const QList<pid_t> left = liveDescendants(::getpid(), xServer->pid());
    asked = QSet<pid_t>(left.begin(), left.end());
    signalAll(left, SIGTERM);
    pollTimer.start(0ms);
}

// What was started while we were asking, by a process that ended when it was asked. Not what has a parent: an
// application that clears up before it ends needs its helpers.
void Ending::askNewOrphans(const QList<pid_t> &left)
{
    const QSet<pid_t> unasked = QSet<pid_t>(left.begin(), left.end()) - asked;
    if (unasked.isEmpty()) {
        return;
    }
    const QSet<pid_t> orphans = unasked & liveChildren();
    signalAll(orphans.values(), SIGTERM);
    asked += orphans;
}

// The rest of the time counts from here: on a machine that stood still all of it may be over otherwise before the first
// SIGKILL.
void Ending::force()
{
    isForced = true;
    forcedTimer.start(limits.forced);
    lookAround();
}

void Ending::lookAround()
{
    const QList<pid_t> left = liveDescendants(::getpid(), xServer->pid());
    if (left.isEmpty()) {
        // Looked at twice: what starts while we read the list can be missed, with its parent gone already.
        if (wasEmpty) {
            endXServer();
        } else {
            wasEmpty = true;
            pollTimer.start(0ms);
        }
        return;
    }
    wasEmpty = false;
    if (isForced) {
        signalAll(left, SIGKILL);
    } else {
        askNewOrphans(left);
    }
    pollTimer.start(kPollInterval);
}

void Ending::endXServer()
{
    if (isEndingXServer) {
        return;
    }
    isEndingXServer = true;
    pollTimer.stop();
    politeTimer.stop();
    forcedTimer.stop();
    const qsizetype left = liveDescendants(::getpid(), xServer->pid()).size();
    if (left > 0) {
        logMessage(LogWarning, u"%1 processes of the session could not be ended"_s.arg(left));
    }
    if (xServer->isRunning()) {
        xServer->stop();
    } else {
        finish();
    }
}

void Ending::finish()
{
    if (!isFinished) {
        isFinished = true;
        emit finished();
    }
}
