// SPDX-License-Identifier: MIT
#pragma once

#include "workers/periodicworker.h"

#include <QByteArray>

class SessionStore;

/**
 * Refreshes all sessions every 400 ms and sends a notification when the list of sessions differs from the last one
 * sent. Created on the main thread, where doWork() runs and sendUpdates() is emitted.
 */
class SessionUpdater final : public PeriodicWorker
{
    Q_OBJECT

public:
    SessionUpdater(SessionStore *store, QObject *parent);
    ~SessionUpdater() override;

public slots:
    void doWork() override;
    void sendUpdatesHelper(QByteArray bytes);

signals:
    /** The list has changed; @p bytes is a whole frame with an "UpdateSessions" notification. */
    void sendUpdates(QByteArray bytes);

private:
    SessionStore *store;    ///< not owned
    QByteArray lastMessage; ///< the last frame sent; used only by doWork()
};
