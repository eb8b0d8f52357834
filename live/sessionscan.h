// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class SessionRegistry;

/**
 * Registers the sessions below @p root whose files can be read. A transient error is retried, which blocks for up to
 * 400 ms. Used at start-up, on the main thread.
 */
void scanSessions(const QString &root, SessionRegistry *registry);
