// SPDX-License-Identifier: MIT
#pragma once

#include <openssl/types.h>

#include <sys/types.h>

/*
 * Waiting for a non-blocking socket. None of these has a deadline: the agent closes the connection when it takes too
 * long.
 */

/** Whether a read or write that returned @p result would have had to wait, or was interrupted; from errno. */
[[nodiscard]] bool mayRetry(ssize_t result);

/** Wait until the socket can be read or written, or is closed. @return false on failure */
[[nodiscard]] bool waitToRead(int socket);
[[nodiscard]] bool waitToWrite(int socket);

/** Waits for what the TLS call that returned @p result needs. @return false when the connection has ended or failed */
[[nodiscard]] bool waitForTls(const SSL *ssl, int socket, int result);
