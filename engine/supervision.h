// SPDX-License-Identifier: MIT
#pragma once

struct Session;

/*
 * The server keeps no handle on the agents that it starts, because they outlive it. These functions learn the state of
 * a running session anew each time. Every function returns SessionOk or a SessionError, NotInitialized for a record
 * without a directory, and logs the cause of a failure. They work on the caller's record without a lock and are
 * callable from any thread.
 */

/**
 * Learns whether the agent runs, what state it reports and, after its end, its exit code. Blocks for up to 1000 ms when
 * an agent accepts the connection but does not answer.
 */
[[nodiscard]] int refreshSession(Session *session);

/*
 * The waits refresh the session every 50 ms until their condition is met. They return TimedOut after @p timeoutMs
 * (negative: never) and UnknownError when the agent ended instead.
 */

/** Until the agent has ended. */
[[nodiscard]] int waitForExit(Session *session, int timeoutMs);
/** Until the list of accepted passwords differs. */
[[nodiscard]] int waitForPasswordsChange(Session *session, int timeoutMs);
/** Until the agent reports itself ready. */
[[nodiscard]] int waitForStarted(Session *session, int timeoutMs);
/** Until a client has connected. */
[[nodiscard]] int waitForConnect(Session *session, int timeoutMs);
/** Until a client has disconnected. */
[[nodiscard]] int waitForDisconnect(Session *session, int timeoutMs);

/** Sends a POSIX signal to the process whose pid the agent wrote into its directory. */
[[nodiscard]] int signalSession(const Session &session, int number);
