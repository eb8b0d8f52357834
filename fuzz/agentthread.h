// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <semaphore>
#include <thread>

#include <sys/types.h>

/**
 * A thread with a working directory of its own, which looks like a process that works there to whoever asks the
 * system: an agent that costs no process. Lives until the process ends; its functions are called by one thread at a
 * time.
 */
class AgentThread final
{
public:
    AgentThread();
    AgentThread(const AgentThread &) = delete;
    AgentThread &operator=(const AgentThread &) = delete;

    /** Its number, which stands below /proc like that of a process. */
    [[nodiscard]] pid_t id() const { return threadId; }

    /** Works in this directory from now on. */
    void enter(const QByteArray &directory);
    /** Works nowhere in particular, as if it had ended. */
    void leave() { enter("/"); }

private:
    void run();

    pid_t threadId = 0;
    QByteArray wanted;
    std::binary_semaphore asked{0};
    std::binary_semaphore done{0};
    std::thread thread; // the last one: it uses all the others
};
