// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include <sys/types.h>
#include <unistd.h>

/**
 * A function on a thread of its own, for what blocks until the test does something. The destructor waits for
 * its end.
 */
class BackgroundTask final
{
public:
    explicit BackgroundTask(std::function<void()> function)
        : thread([this, work = std::move(function)] {
            threadId = ::gettid();
            work();
            done = true;
        })
    {
    }
    ~BackgroundTask() { thread.join(); }
    BackgroundTask(const BackgroundTask &) = delete;
    BackgroundTask &operator=(const BackgroundTask &) = delete;

    [[nodiscard]] bool isDone() const { return done; }

    /** Waits until it sleeps in the system; false when it came to its end instead. */
    [[nodiscard]] bool waitUntilBlocked() const
    {
        const bool isOver = QTest::qWaitFor([this] { return done || isAsleep(); }, 20000);
        return isOver && !done;
    }

    /** Waits for its end, for as long as no healthy one can take. */
    [[nodiscard]] bool waitUntilDone() const
    {
        return QTest::qWaitFor([this] { return done.load(); }, 30000);
    }

private:
    [[nodiscard]] bool isAsleep() const
    {
        const pid_t id = threadId;
        const QByteArray status = contentOf(QStringLiteral("/proc/self/task/%1/stat").arg(id));
        return id != 0 && status.mid(status.lastIndexOf(')') + 1).trimmed().startsWith('S');
    }

    std::atomic<pid_t> threadId = 0;
    std::atomic<bool> done = false;
    std::thread thread;
};
