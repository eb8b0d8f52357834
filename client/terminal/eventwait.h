// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/interruption.h"

#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>

/** For waits that only an event ends, such as that of a program which follows the server. */
inline constexpr std::chrono::milliseconds kNoDeadline{-1};

/**
 * Runs an event loop until something calls wake() and the condition holds, the time is over, or an Interruption comes.
 * Timers, sockets and child processes are served meanwhile. Lives on the stack; used on the main thread.
 */
class EventWait
{
public:
    /** @param condition  looked at before the first event and after each wake() */
    explicit EventWait(std::function<bool()> condition_)
        : condition(std::move(condition_))
    {
    }

    /** The object to connect signals to, which may call wake(). */
    [[nodiscard]] QObject *context() { return &loop; }

    void wake() { loop.quit(); }

    /** Whether the condition came to hold in time. */
    [[nodiscard]] bool run(std::chrono::milliseconds timeout)
    {
        QTimer timer;
        timer.setSingleShot(true);
        timer.setTimerType(Qt::PreciseTimer); // others may come early, and nobody's time is cut short
        bool isOver = false;
        const auto end = [this, &isOver] {
            isOver = true;
            loop.quit();
        };
        QObject::connect(&timer, &QTimer::timeout, &timer, end);
        if (const Interruption *interruption = Interruption::current()) {
            QObject::connect(interruption, &Interruption::came, &timer, end);
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
