// SPDX-License-Identifier: MIT
#pragma once

#include "workers/periodicworker.h"

class SessionStore;

/**
 * Once a minute sends SIGTERM to every session that has been without a client for too long. It does not wait for their
 * end, which the session updater notices. Created on the main thread, where doWork() runs.
 */
class SuspendChecker final : public PeriodicWorker
{
    Q_OBJECT

public:
    /** @param timeout  in minutes; negative: never */
    SuspendChecker(SessionStore *store, int timeout, QObject *parent);
    ~SuspendChecker() override;

public slots:
    void doWork() override;

private:
    SessionStore *store; ///< not owned
    const int timeout;
};
