// SPDX-License-Identifier: MIT
#pragma once

#include "agent/session/agentfiles.h"

#include <QString>

#include <sys/types.h>

/*
 * The agent works under a guard, its parent process, so that nothing of a session outlives an agent that is killed:
 * what the applications have started in turn learns nothing of the agent's death, and would run on without a display.
 * The guard does nothing while all goes well. It has no event loop and no thread, and its one connection is the link
 * to the agent, over which the agent tells what it holds, and notices when the guard itself is gone.
 */

/** What the agent holds that stays behind when it is killed. Goes over the link as it is. */
struct AgentHoldings
{
    qint32 display = -1; ///< whose sockets the agent serves; -1: none
    pid_t xServer = 0;   ///< the X server's process; 0: none
};

/**
 * Becomes the guard of a new process. Returns in both: in the agent with @p agent 0, in the guard with the agent's id.
 * Signals that ask the agent for something are blocked in both and wait; the agent unblocks them when it is ready for
 * them.
 *
 * @param agent  set only on success
 * @param link   set only on success: this process's end of the link, close-on-exec
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool forkAgent(pid_t *agent, int *link, QString *error);

/**
 * Waits for the end of the agent, hands signals on to it until then, and ends and removes whatever it has left.
 * Blocks for as long as the session lasts.
 *
 * @return the agent's exit code; AgentDied when it had none
 */
[[nodiscard]] AgentExitCode guardAgent(pid_t agent, int link);
