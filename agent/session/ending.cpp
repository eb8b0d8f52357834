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

/** The end of a grandchild sends us no signal, so we poll. */
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
    connect(&pollTimer, &QTimer::timeout, this, &Ending::look);
    connect(&terminateTimer, &QTimer::timeout, this, &Ending::beginKilling);
    connect(&killTimer, &QTimer::timeout, this, &Ending::endXServer);
    pollTimer.setSingleShot(true);
    terminateTimer.setSingleShot(true);
    killTimer.setSingleShot(true);
}

void Ending::start()
{
    isStarted = true;
    terminateTimer.start(limits.terminate);
    const QList<pid_t> left = liveDescendants(::getpid(), xServer->pid());
    signalled = QSet<pid_t>(left.begin(), left.end());
    signalAll(left, SIGTERM);
    pollTimer.start(0ms);
}

/**
 * Sends SIGTERM to orphans that were started by a process which has since ended on its own SIGTERM. Processes with a
 * living parent get none, because an application that cleans up before it ends needs its helpers.
 */
void Ending::terminateNewOrphans(const QList<pid_t> &left)
{
    const QSet<pid_t> notSignalled = QSet<pid_t>(left.begin(), left.end()) - signalled;
    if (notSignalled.isEmpty()) {
        return;
    }
    const QSet<pid_t> orphans = notSignalled & liveChildren();
    signalAll(orphans.values(), SIGTERM);
    signalled += orphans;
}

/**
 * The time for SIGKILL starts to count here. If it counted from start(), all of it could be over before the first
 * SIGKILL on a machine that stood still.
 */
void Ending::beginKilling()
{
    isKilling = true;
    killTimer.start(limits.kill);
    look();
}

void Ending::look()
{
    const QList<pid_t> left = liveDescendants(::getpid(), xServer->pid());
    if (left.isEmpty()) {
        // Two empty looks in a row, because one look can miss a process that starts while we read /proc and whose
        // parent has ended.
        if (wasEmpty) {
            endXServer();
        } else {
            wasEmpty = true;
            pollTimer.start(0ms);
        }
        return;
    }
    wasEmpty = false;
    if (isKilling) {
        signalAll(left, SIGKILL);
    } else {
        terminateNewOrphans(left);
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
    terminateTimer.stop();
    killTimer.stop();
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
