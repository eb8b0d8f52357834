// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <semaphore>
#include <thread>

#include <sys/types.h>

/**
 * A thread with a working directory of its own. Under /proc it looks like a process that works there, so it can stand
 * for an agent without the cost of a process. Lives until the process ends; one thread at a time calls its functions.
 */
class AgentThread final
{
public:
    AgentThread();
    Q_DISABLE_COPY_MOVE(AgentThread)

    /** The id of the thread, which has a directory under /proc like a process. */
    [[nodiscard]] pid_t id() const { return threadId; }

    /** Makes the thread work in this directory. */
    void enter(const QByteArray &directory);
    /** Makes the thread work in "/", as if the agent had ended. */
    void leave() { enter("/"); }

private:
    void run();

    pid_t threadId = 0;
    QByteArray wanted;
    std::binary_semaphore asked{0};
    std::binary_semaphore done{0};
    std::thread thread; // last, because it uses all other members
};
