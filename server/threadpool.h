// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Starts all threads of the global pool, which then never expire. Otherwise a thread would be started when a request
 * needs it, and if the system had none, Qt would drop the request silently: the client would wait for ever, and so
 * would the end of the server. Extra threads, which the pool starts for queries of peers, are not included.
 *
 * Called on the main thread during start-up, after the size of the pool was set and before the pool is used.
 *
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool startPoolThreads(QString *error);
