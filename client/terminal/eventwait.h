// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/interruption.h"

#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>

/** For waits that only an event ends, such as that of "zarvoctl watch". */
inline constexpr std::chrono::milliseconds kNoDeadline{-1};

/**
 * Runs an event loop until the condition holds, the timeout passes, or a signal is caught by an Interruption. Timers,
 * sockets and child processes are served meanwhile. Lives on the stack; used on the main thread.
 */
class EventWait
{
public:
    /** @param condition  checked before the first event and after each wake() */
    explicit EventWait(std::function<bool()> condition_)
        : condition(std::move(condition_))
    {
    }

    /** The context for connections to slots that call wake(). */
    [[nodiscard]] QObject *context() { return &loop; }

    void wake() { loop.quit(); }

    /** Returns whether the condition holds at the end. */
    [[nodiscard]] bool run(std::chrono::milliseconds timeout)
    {
        QTimer timer;
        timer.setSingleShot(true);
        timer.setTimerType(Qt::PreciseTimer); // a coarse timer may fire early
        bool isOver = false;
        const auto end = [this, &isOver] {
            isOver = true;
            loop.quit();
        };
        QObject::connect(&timer, &QTimer::timeout, &timer, end);
        if (const Interruption *interruption = Interruption::current()) {
            QObject::connect(interruption, &Interruption::signalCaught, &timer, end);
        }
        if (timeout >= std::chrono::milliseconds::zero()) {
            timer.start(timeout);
        }
        while (!condition() && !isOver) {
            loop.exec();
        }
        return condition();
    }

private:
    QEventLoop loop;
    std::function<bool()> condition;
};

/** Serves events for @p time, or until a signal is caught by an Interruption. Used on the main thread. */
inline void serveEvents(std::chrono::milliseconds time)
{
    EventWait wait([] { return false; });
    [[maybe_unused]] const bool never = wait.run(time);
}
