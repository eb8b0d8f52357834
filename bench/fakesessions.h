// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <atomic>
#include <thread>
#include <vector>

#include <poll.h>

/**
 * Sessions without agents: each has a real directory and a process that does nothing. In socket mode one thread answers
 * for all agents until the program ends. Failures end the program.
 */
class FakeSessions
{
public:
    enum class Mode { Socket, Log };

    /** Makes @p count sessions under @p root, on consecutive displays from @p firstDisplay on. */
    FakeSessions(const QString &root, int count, Mode mode, quint16 firstDisplay);
    ~FakeSessions();
    Q_DISABLE_COPY_MOVE(FakeSessions)

    /** Sets how many clients every agent reports; only in socket mode. */
    void setClients(int count) { clients = count; }

private:
    void makeSession(const QString &root, int number);
    void listenAsAgent(quint16 display);
    void answer();

    const Mode mode;
    const quint16 firstDisplay;
    std::vector<pid_t> processes;
    std::vector<pollfd> listeners;
    std::atomic<int> clients = 0;
};
