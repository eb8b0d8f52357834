// SPDX-License-Identifier: MIT
#pragma once

#include "agent/session/agentfiles.h"

#include <QString>

#include <sys/types.h>

/*
 * The guard is the parent process of the agent. When the agent is killed, the guard ends everything that the session
 * has started, because most of these processes do not notice the agent's death and would run on without a display.
 * Until then the guard only passes signals on. It has no event loop and no thread. Over one link the agent tells the
 * guard what it holds, and notices when the guard is gone.
 */

/** What a killed agent leaves behind. Sent over the link as it is in memory. */
struct AgentHoldings
{
    qint32 display = -1; ///< the display whose sockets the agent serves; -1: none
    pid_t xServer = 0;   ///< the pid of the X server; 0: none
};

/**
 * Starts a new process, the agent, and becomes its guard. Returns in both: in the agent with @p agent 0, in the guard
 * with the agent's pid. The agent's signals are blocked in both. The agent unblocks them when it has its handlers.
 *
 * @param agent  set only on success
 * @param link   set only on success: this process's end of the link, close-on-exec
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool forkAgent(pid_t *agent, int *link, QString *error);

/**
 * Passes signals on to the agent until it ends. Then ends the processes and removes the files that it has left behind.
 * Blocks as long as the session lasts.
 *
 * @return the agent's exit code; AgentDied when it had none
 */
[[nodiscard]] AgentExitCode guardAgent(pid_t agent, int link);
