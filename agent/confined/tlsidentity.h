// SPDX-License-Identifier: MIT
#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>
#include <string_view>

struct SslContextDeleter
{
    void operator()(SSL_CTX *context) const;
};
struct SslDeleter
{
    void operator()(SSL *ssl) const;
};
using SslPtr = std::unique_ptr<SSL, SslDeleter>;

/**
 * The certificate that visitors see, without its private key: signatures are asked for over the control socket of the
 * visitor, so no process that reads a visitor's bytes has the key.
 */
class TlsIdentity final
{
public:
    /** @return null if @p pem holds no certificate with an RSA key */
    [[nodiscard]] static std::unique_ptr<TlsIdentity> fromPem(std::string_view pem);
    ~TlsIdentity();
    TlsIdentity(const TlsIdentity &) = delete;
    TlsIdentity &operator=(const TlsIdentity &) = delete;

    /**
     * The server's end of a new TLS connection on the connected socket @p socket. Its signature is asked for over
     * @p control, which waits for the answer. Null if there is no memory.
     */
    [[nodiscard]] SslPtr newConnection(int socket, const int *control) const;

private:
    TlsIdentity() = default;

    std::unique_ptr<SSL_CTX, SslContextDeleter> context;
    X509 *certificate = nullptr;
};
