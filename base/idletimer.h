// SPDX-License-Identifier: MIT
#pragma once

class QTimer;

/*
 * Ends an idle server: the timer quits the application 300000 ms after the last session and the last client connection
 * are gone. The counters are global, because sessions and connections belong to layers that do not know each other.
 *
 * Holds and releases may come from any thread and while the caller holds a mutex: they count at once, and only queue
 * the start or stop of the timer to the main thread. All other functions are called on the main thread.
 */

/** Creates the timer, and starts it unless something is held already. A second call does nothing. */
void armIdleTimer();

/** Counts the sessions in the registry. */
void holdSession();
void releaseSession();

/** Counts the client connections. */
void holdConnection();
void releaseConnection();

/** For tests: the timer; null until armIdleTimer() was called. */
[[nodiscard]] QTimer *TEST_idleTimer();
/** For tests: how many sessions and connections are held. */
[[nodiscard]] int TEST_heldSessions();
[[nodiscard]] int TEST_heldConnections();
