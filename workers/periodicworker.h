// SPDX-License-Identifier: MIT
#pragma once

#include <QThread>

#include <chrono>

/**
 * Calls doWork() at regular intervals on the thread that created the worker, which is the main thread: its own
 * thread does nothing but host the timer. Destroying the worker ends that thread.
 */
class PeriodicWorker : public QThread
{
    Q_OBJECT

public:
    PeriodicWorker(std::chrono::milliseconds interval, QObject *parent);
    ~PeriodicWorker() override;

public slots:
    virtual void doWork() = 0;

protected:
    void run() override;

private:
    const std::chrono::milliseconds interval;
};
