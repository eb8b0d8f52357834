// SPDX-License-Identifier: MIT
#include "base/idletimer.h"

#include <QCoreApplication>
#include <QMutex>
#include <QMutexLocker>
#include <QPointer>
#include <QTimer>

#include <chrono>

namespace {

constexpr std::chrono::milliseconds kIdleTimeout{300000};

struct IdleState
{
    QMutex mutex; ///< guards all below; held while a call is queued, so that starts and stops arrive in order
    QPointer<QTimer> timer;
    int sessions = 0;
    int connections = 0;
};

IdleState state;

void queueStop()
{
    if (state.timer) {
        QMetaObject::invokeMethod(state.timer, &QTimer::stop, Qt::QueuedConnection);
    }
}

void queueStartIfIdle()
{
    if (state.timer && state.sessions == 0 && state.connections == 0) {
        QMetaObject::invokeMethod(state.timer, qOverload<>(&QTimer::start), Qt::QueuedConnection);
    }
}

void hold(int IdleState::*counter)
{
    const QMutexLocker locker(&state.mutex);
    ++(state.*counter);
    queueStop();
}

void release(int IdleState::*counter)
{
    const QMutexLocker locker(&state.mutex);
    --(state.*counter);
    queueStartIfIdle();
}

} // namespace

void armIdleTimer()
{
    const QMutexLocker locker(&state.mutex);
    if (state.timer) {
        return;
    }
    state.timer = new QTimer(QCoreApplication::instance());
    QObject::connect(state.timer, &QTimer::timeout, QCoreApplication::instance(), &QCoreApplication::quit);
    state.timer->setSingleShot(true);
    state.timer->setInterval(kIdleTimeout);
    queueStartIfIdle();
}

void holdSession()
{
    hold(&IdleState::sessions);
}

void releaseSession()
{
    release(&IdleState::sessions);
}

void holdConnection()
{
    hold(&IdleState::connections);
}

void releaseConnection()
{
    release(&IdleState::connections);
}

QTimer *TEST_idleTimer()
{
    return state.timer;
}

int TEST_heldSessions()
{
    const QMutexLocker locker(&state.mutex);
    return state.sessions;
}

int TEST_heldConnections()
{
    const QMutexLocker locker(&state.mutex);
    return state.connections;
}
