// SPDX-License-Identifier: MIT
#pragma once

#include "workers/periodicworker.h"

class SessionStore;

/**
 * Once a minute asks every session to end that has been without a client for too long. It does not wait for
 * them: the session updater sees them go. Created on the main thread, where doWork() runs.
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
