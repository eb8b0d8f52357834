// SPDX-License-Identifier: MIT
#include "agent/confined/doorservant.h"

#include <cstdio>

#include <sys/socket.h>
#include <unistd.h>

/** The descriptor that the agent gives us. */
constexpr int kAgentSocket = STDERR_FILENO + 1;

/** Receives the agent's visitors, confined. Free of Qt, so that little code is within reach of strangers. */
int main()
{
    int type = 0;
    socklen_t size = sizeof type;
    if (::getsockopt(kAgentSocket, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_SEQPACKET) {
        std::fputs("session-door: started by start-agent only\n", stderr);
        return 2;
    }
    return runDoorServant(kAgentSocket);
}
