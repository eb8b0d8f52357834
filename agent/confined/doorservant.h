// SPDX-License-Identifier: MIT
#pragma once

/**
 * The loop of the servant: takes visitors from the agent and starts a confined process for each, so that what one
 * visitor breaks is nobody else's. Confines itself first.
 *
 * @param agent  the socket to the agent, see doorpackets.h
 * @return when the agent has closed it; the exit code
 */
int runDoorServant(int agent);
