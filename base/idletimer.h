// SPDX-License-Identifier: MIT
#pragma once

class QTimer;

/*
 * The timer that ends a server which nobody needs: it quits the application 300000 ms after the last session
 * and the last client connection are gone. Sessions and connections are counted for the whole process,
 * because they are held by layers that know nothing of each other.
 *
 * Holds and releases come from any thread, also from callers that hold a mutex: they count at once and only
 * queue the timer's start or stop to the main thread. The others are called on the main thread.
 */

/** Creates the timer and, unless something is held already, starts it. A second call does nothing. */
void armIdleTimer();

/** Counts one session more or less in the registry. */
void holdSession();
void releaseSession();

/** Counts one client connection more or less. */
void holdConnection();
void releaseConnection();

/** For tests: the timer, null before it was armed. */
[[nodiscard]] QTimer *TEST_idleTimer();
/** For tests: how many sessions and connections are held. */
[[nodiscard]] int TEST_heldSessions();
[[nodiscard]] int TEST_heldConnections();
