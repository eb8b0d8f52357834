// SPDX-License-Identifier: MIT
#include "server/threadpool.h"

#include "support/systemthreads.h"

#include <QSemaphore>
#include <QThreadPool>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

/** Long enough for any machine; threads that could be had a moment ago do not fail to come up. */
constexpr int kStartTimeoutMs = 10000;
/** Those of the two workers. */
constexpr int kFurtherThreads = 2;

} // namespace

bool startPoolThreads(QString *error)
{
    QThreadPool *pool = QThreadPool::globalInstance();
    const int count = pool->maxThreadCount();
    if (!canHaveThreads(count + kFurtherThreads, error)) {
        return false;
    }
    pool->setExpiryTimeout(-1);
    // Each task keeps its thread until all have one. It may end after this function.
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
