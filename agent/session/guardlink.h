// SPDX-License-Identifier: MIT
#pragma once

#include "agent/session/guard.h"

#include <QObject>
#include <QSocketNotifier>

/** The agent's end of the link to its guard. Owned by start-agent's main function, lives on the main thread. */
class GuardLink final : public QObject
{
    Q_OBJECT

public:
    /** @param descriptor  as from forkAgent(); the caller closes it */
    explicit GuardLink(int descriptor, QObject *parent = nullptr);

    /** Tells the guard what to remove if we are killed from now on. */
    void tell(const AgentHoldings &holdings);

signals:
    /** The guard is gone. Emitted at most once. */
    void lost();

private:
    void Notifier_activated();

    int descriptor;
    QSocketNotifier notifier;
};

/** Whether the guard at the other end of @p link is still there. */
[[nodiscard]] bool isGuardAlive(int link);
