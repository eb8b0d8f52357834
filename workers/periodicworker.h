// SPDX-License-Identifier: MIT
#pragma once

#include <QThread>

#include <atomic>
#include <chrono>

/**
 * Calls doWork() at regular intervals on the thread that created the worker, which is the main thread. Its own thread
 * only runs the timer. A tick is skipped while the previous one is queued or at work, so that slow work does not fill
 * the event queue. Destroying the worker ends its thread: every derived class calls stop() in its destructor.
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
     * Ends the thread if it runs, and waits for it. Only the most derived class may call it: a thread that has just
     * started calls the virtual run(), which must not happen while base destructors run.
     */
    void stop();

private:
    void tick();

    std::atomic<bool> tickPending = false; ///< set by the timer's thread, cleared by the main thread
    const std::chrono::milliseconds interval;
};
