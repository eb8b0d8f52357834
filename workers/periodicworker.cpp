// SPDX-License-Identifier: MIT
#include "workers/periodicworker.h"

#include <QTimer>

PeriodicWorker::PeriodicWorker(std::chrono::milliseconds interval_, QObject *parent)
    : QThread(parent)
    , interval(interval_)
{
}

void PeriodicWorker::run()
{
    QTimer timer;
    connect(&timer, &QTimer::timeout, &timer, [this] {
        if (!tickPending.exchange(true)) {
            QMetaObject::invokeMethod(this, &PeriodicWorker::tick, Qt::QueuedConnection);
        }
    });
    timer.start(interval);
    exec();
}

void PeriodicWorker::stop()
{
    quit();
    wait();
}

void PeriodicWorker::tick()
{
    doWork();
    tickPending = false;
}
