// SPDX-License-Identifier: MIT
#pragma once

struct Session;

/*
 * The server keeps no handle on the agents that it starts, for they outlive it. All that it knows of a
 * running session it learns anew here. Every function returns SessionOk or a SessionError, NotInitialized
 * for a record without a directory, and logs the cause of a failure. They work on the caller's record
 * without a lock and are callable from any thread.
 */

/**
 * Learns whether the agent lives, what it tells of itself and, when it is gone, how it ended. Blocks for up to
 * 1000 ms when an agent accepts and does not answer.
 */
[[nodiscard]] int refreshSession(Session *session);

/*
 * The waits refresh the session every 50 ms until it has changed in their way. They return TimedOut after
 * @p timeoutMs (negative: never) and UnknownError when the agent ended instead.
 */

/** Until the agent is gone. */
[[nodiscard]] int waitForExit(Session *session, int timeoutMs);
/** Until the list of accepted passwords is another one. */
[[nodiscard]] int waitForPasswordsChange(Session *session, int timeoutMs);
/** Until the agent reports itself ready. */
[[nodiscard]] int waitForStarted(Session *session, int timeoutMs);
/** Until a client has connected. */
[[nodiscard]] int waitForConnect(Session *session, int timeoutMs);
/** Until a client has disconnected. */
[[nodiscard]] int waitForDisconnect(Session *session, int timeoutMs);

/** Sends a POSIX signal to the process that the agent has named for this in its directory. */
[[nodiscard]] int signalSession(const Session &session, int number);
