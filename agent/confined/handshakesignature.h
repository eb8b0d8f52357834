// SPDX-License-Identifier: MIT
#pragma once

#include <openssl/types.h>

#include <optional>
#include <string>
#include <string_view>

/**
 * What a TLS server signs in a handshake, before it is hashed. A value.
 *
 * The key is also the one with which clients prove to the server that they are the user. A confined process that an
 * attacker has taken over may have signed what it likes, if it is what a server signs, and nothing that a client does.
 */
struct HandshakeSignature
{
    bool isPss = false; ///< the padding: RSASSA-PSS, or PKCS #1 v1.5
    int hashBits = 256; ///< of SHA-2
    std::string content;

    /** The packet DoorPacket::kSign. */
    [[nodiscard]] std::string toPacket() const;
    /** Nothing if @p packet is no such packet. */
    [[nodiscard]] static std::optional<HandshakeSignature> fromPacket(std::string_view packet);

    /** Whether the content is what a server signs in TLS 1.2 with ECDHE, or in TLS 1.3. */
    [[nodiscard]] bool isServers() const;

    /** The signature; empty if the content is not a server's, or on failure. Callable from any thread. */
    [[nodiscard]] std::string sign(EVP_PKEY *key) const;
};

/** An RSA signature of @p content by a key of this process; empty on failure. */
[[nodiscard]] std::string rsaSignature(EVP_PKEY *key, const EVP_MD *hash, bool isPss, std::string_view content);
