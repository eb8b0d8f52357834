// SPDX-License-Identifier: MIT
#pragma once

#include <QThread>

#include <atomic>
#include <chrono>

/**
 * Calls doWork() at regular intervals on the thread that created the worker, which is the main thread: its own
 * thread does nothing but host the timer. A tick is left out while the one before it waits or is at work, so
 * that work which takes longer than the interval does not fill the event queue. Destroying the worker ends
 * its thread.
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
    void tick();

    std::atomic<bool> tickPending = false; ///< set by the timer's thread, cleared by the main thread
    const std::chrono::milliseconds interval;
};
