// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

struct Session;

/**
 * Asks a running agent for its state: times, screen size, clients, passwords. Blocks for up to 1000 ms; callable from
 * any thread. An answer counts only from a process of this user or of root, because anybody can make a socket in /tmp.
 *
 * @param session     updated with the agent's answer; unchanged on failure
 * @param socketPath  the agent's local socket
 * @param error       set only on failure
 * @return whether the agent answered with JSON and closed the connection in time
 */
[[nodiscard]] bool readAgentInfo(Session *session, const QString &socketPath, QString *error);
