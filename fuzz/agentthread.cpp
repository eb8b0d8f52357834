// SPDX-License-Identifier: MIT
#include "fuzz/agentthread.h"

#include "fuzz/target.h"

#include <sched.h>
#include <unistd.h>

AgentThread::AgentThread()
    : thread([this] { run(); })
{
    done.acquire();
}

void AgentThread::enter(const QByteArray &directory)
{
    wanted = directory;
    asked.release();
    done.acquire();
}

void AgentThread::run()
{
    // From here on this thread has a working directory of its own.
    FUZZ_CHECK(::unshare(CLONE_FS) == 0);
    threadId = ::gettid();
    done.release();
    for (;;) {
        asked.acquire();
        FUZZ_CHECK(::chdir(wanted.constData()) == 0);
        done.release();
    }
}
