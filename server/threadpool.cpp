// SPDX-License-Identifier: MIT
#include "server/threadpool.h"

#include "support/systemthreads.h"

#include <QSemaphore>
#include <QThreadPool>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

/** Long enough for a busy machine, because the system has just proved that it has the threads. */
constexpr int kStartTimeoutMs = 10000;
constexpr int kWorkerThreads = 2; ///< SessionUpdater and SuspendChecker

} // namespace

bool startPoolThreads(QString *error)
{
    QThreadPool *pool = QThreadPool::globalInstance();
    const int count = pool->maxThreadCount();
    if (!canHaveThreads(count + kWorkerThreads, error)) {
        return false;
    }
    pool->setExpiryTimeout(-1);
    // Each task occupies its thread until all tasks have one. Shared, because a task may end after this function.
    const auto started = std::make_shared<QSemaphore>();
    const auto end = std::make_shared<QSemaphore>();
    for (int number = 0; number < count; ++number) {
        pool->start([started, end] {
            started->release();
            end->acquire();
        });
    }
    const bool succeeded = started->tryAcquire(count, kStartTimeoutMs);
    end->release(count);
    if (!succeeded) {
        *error = u"Failed to start a thread"_s;
    }
    return succeeded;
}
