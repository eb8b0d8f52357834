// SPDX-License-Identifier: MIT
#pragma once

#include <openssl/types.h>

/**
 * Copies bytes between a TLS connection and the socket of the X server until one of them ends, or @p control does. When
 * one side does not take its bytes, the other side is not read (back-pressure).
 *
 * @param ssl     on @p client; the handshake is done
 * @param client  non-blocking, as @p backend
 */
void relayTls(SSL *ssl, int client, int backend, int control);
