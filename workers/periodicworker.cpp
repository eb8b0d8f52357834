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
    // The worker lives elsewhere, so each tick is queued to its thread.
    connect(&timer, &QTimer::timeout, this, &PeriodicWorker::doWork);
    timer.start(interval);
    exec();
}
