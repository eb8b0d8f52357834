// SPDX-License-Identifier: MIT
#include "workers/suspendchecker.h"

#include "live/sessionstore.h"

using namespace std::chrono_literals;

SuspendChecker::SuspendChecker(SessionStore *store_, int timeout_, QObject *parent)
    : PeriodicWorker(60000ms, parent)
    , store(store_)
    , timeout(timeout_)
{
}

SuspendChecker::~SuspendChecker()
{
    stop();
}

void SuspendChecker::doWork()
{
    if (timeout >= 0) {
        store->suspendIdle(timeout);
    }
}
