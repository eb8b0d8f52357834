// SPDX-License-Identifier: MIT
#pragma once

#include <openssl/ssl.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

/** TLS for both ends of the load tests: OpenSSL with its defaults and the server's certificate on both sides. */
namespace tls {

struct Free
{
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
    void operator()(SSL *connection) const { SSL_free(connection); }
};
using Context = std::unique_ptr<SSL_CTX, Free>;
using Connection = std::unique_ptr<SSL, Free>;

[[noreturn]] inline void fail(const char *what)
{
    std::perror(what);
    std::exit(1);
}

/** Asks the peer for its certificate and accepts any, as the server does during the handshake. */
inline Context makeContext(const SSL_METHOD *method, const char *certificate, const char *key)
{
    Context context(SSL_CTX_new(method));
    if (SSL_CTX_use_certificate_file(context.get(), certificate, SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(context.get(), key, SSL_FILETYPE_PEM) != 1) {
        std::fprintf(stderr, "Failed to load %s and %s\n", certificate, key);
        std::exit(1);
    }
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, [](int, X509_STORE_CTX *) { return 1; });
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    return context;
}

/** Whether the call has to wait for the socket. Sets the events to wait for. */
inline bool isWaiting(SSL *connection, int result, bool *forWriting)
{
    const int reason = SSL_get_error(connection, result);
    *forWriting = reason == SSL_ERROR_WANT_WRITE;
    return *forWriting || reason == SSL_ERROR_WANT_READ;
}

} // namespace tls
