// SPDX-License-Identifier: MIT
#pragma once

class QSslConfiguration;

/**
 * Restricts a connection, at either end, to TLS 1.3 and to TLS 1.2 with a key exchange by ECDHE and authenticated
 * encryption (AEAD). With static RSA, a key that is stolen later would decrypt what was recorded today, and CBC has a
 * history of padding attacks. Callable from any thread.
 */
void requireStrongTls(QSslConfiguration *configuration);
