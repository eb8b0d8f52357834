// SPDX-License-Identifier: MIT
#include "workers/periodicworker.h"

#include <QTimer>

PeriodicWorker::PeriodicWorker(std::chrono::milliseconds interval_, QObject *parent)
    : QThread(parent)
    , interval(interval_)
{
}

PeriodicWorker::~PeriodicWorker()
{
    quit();
    wait();
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

void PeriodicWorker::tick()
{
    doWork();
    tickPending = false;
}
