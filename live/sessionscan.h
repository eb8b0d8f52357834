// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class SessionRegistry;

/**
 * Registers the sessions that run, or have ended, below @p root and whose files can be read. Blocks for up to 400 ms
 * more when the system lacks something at the moment. Used at the start-up, on the main thread.
 */
void scanSessions(const QString &root, SessionRegistry *registry);
