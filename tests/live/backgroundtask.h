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
 * Runs a function on a thread of its own, because it blocks until the test does something. The destructor waits for its
 * end.
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
    Q_DISABLE_COPY_MOVE(BackgroundTask)

    [[nodiscard]] bool isDone() const { return done; }

    /** Waits until the thread sleeps; false if it ended instead. */
    [[nodiscard]] bool waitUntilBlocked() const
    {
        const bool isOver = QTest::qWaitFor([this] { return done || isAsleep(); }, 20000);
        return isOver && !done;
    }

    /** Waits for the end of the function, longer than it can take without a fault. */
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
