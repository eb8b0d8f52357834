// SPDX-License-Identifier: MIT
#pragma once

#include <QThread>

#include <atomic>
#include <chrono>

/**
 * Calls doWork() at regular intervals on the thread that created the worker, which is the main thread: its own
 * thread does nothing but host the timer. A tick is left out while the one before it waits or is at work, so
 * that work which takes longer than the interval does not fill the event queue. Destroying the worker ends its
 * thread, for which every class derived from this one calls stop() in its destructor.
 */
class PeriodicWorker : public QThread
{
    Q_OBJECT

public:
    PeriodicWorker(std::chrono::milliseconds interval, QObject *parent);

public slots:
    virtual void doWork() = 0;

protected:
    void run() override;

    /**
     * Ends the thread if it runs, and waits for it. Only the last class can do so: a thread that has just begun
     * looks up run() in an object that must not be in parts by then.
     */
    void stop();

private:
    void tick();

    std::atomic<bool> tickPending = false; ///< set by the timer's thread, cleared by the main thread
    const std::chrono::milliseconds interval;
};
