// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Makes all threads that the global pool may have, for good. Without this a thread is made when a request needs it, and
 * when there is none to be had Qt drops the request without a word: the client waits for ever, and so does the
 * server's end. Threads that the pool has beyond its size, for queries of peers, are not among them.
 *
 * Called on the main thread during start-up, once the pool has its size and before it is used.
 *
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool startPoolThreads(QString *error);
