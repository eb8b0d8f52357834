// SPDX-License-Identifier: MIT
#include "agent/confined/handshakesignature.h"

#include "agent/confined/doorpackets.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <array>
#include <memory>

namespace {

using ContextPtr = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

constexpr std::size_t kHeaderBytes = 3;
constexpr char kPss = 'P';
constexpr char kPkcs1 = '1';

struct Hash
{
    int bits;
    char letter; ///< in the packet
    const EVP_MD *(*algorithm)();
};

constexpr std::array kHashes = {Hash{256, '2', &EVP_sha256}, Hash{384, '3', &EVP_sha384}, Hash{512, '5', &EVP_sha512}};

template <typename Fits>
const Hash *findHash(Fits fits)
{
    for (const Hash &hash : kHashes) {
        if (fits(hash)) {
            return &hash;
        }
    }
    return nullptr;
}

/** 64 blanks, the name of the signature, a zero byte, and the hash of the handshake so far. */
bool isServersOfTls13(std::string_view content)
{
    using namespace std::string_view_literals;
    static const std::string prefix = std::string(64, ' ') + std::string("TLS 1.3, server CertificateVerify\0"sv);
    return content.substr(0, prefix.size()) == prefix &&
           (content.size() == prefix.size() + 32 || content.size() == prefix.size() + 48);
}

/**
 * The random numbers of both sides, the curve, and the server's share. What a client of TLS 1.2 signs is the whole
 * handshake so far, which is longer.
 */
bool isServersOfTls12(std::string_view content)
{
    using namespace std::string_view_literals;
    constexpr std::size_t kRandomBytes = 64;
    constexpr std::size_t kHeadBytes = 4;
    if (content.size() < kRandomBytes + kHeadBytes) {
        return false;
    }
    const std::string_view head = content.substr(kRandomBytes, kHeadBytes);
    const std::size_t share = content.size() - kRandomBytes - kHeadBytes;
    return (head == "\x03\x00\x1d\x20"sv && share == 0x20) || (head == "\x03\x00\x17\x41"sv && share == 0x41);
}

} // namespace

std::string HandshakeSignature::toPacket() const
{
    const Hash *const hash = findHash([this](const Hash &row) { return row.bits == hashBits; });
    return std::string{DoorPacket::kSign, isPss ? kPss : kPkcs1, hash != nullptr ? hash->letter : '?'} + content;
}

std::optional<HandshakeSignature> HandshakeSignature::fromPacket(std::string_view packet)
{
    if (packet.size() < kHeaderBytes || packet[0] != DoorPacket::kSign) {
        return std::nullopt;
    }
    const Hash *const hash = findHash([packet](const Hash &row) { return row.letter == packet[2]; });
    if (hash == nullptr || (packet[1] != kPss && packet[1] != kPkcs1)) {
        return std::nullopt;
    }
    return HandshakeSignature{packet[1] == kPss, hash->bits, std::string(packet.substr(kHeaderBytes))};
}

bool HandshakeSignature::isServers() const
{
    return isServersOfTls12(content) || isServersOfTls13(content);
}

std::string HandshakeSignature::sign(EVP_PKEY *key) const
{
    const Hash *const hash = findHash([this](const Hash &row) { return row.bits == hashBits; });
    return isServers() && hash != nullptr ? rsaSignature(key, hash->algorithm(), isPss, content) : std::string();
}

std::string rsaSignature(EVP_PKEY *key, const EVP_MD *hash, bool isPss, std::string_view content)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> hashed = {};
    unsigned int hashedBytes = 0;
    const ContextPtr context(EVP_PKEY_CTX_new(key, nullptr), &EVP_PKEY_CTX_free);
    std::size_t length = static_cast<std::size_t>(EVP_PKEY_get_size(key));
    std::string signature(length, '\0');
    const bool isSigned =
        context && EVP_Digest(content.data(), content.size(), hashed.data(), &hashedBytes, hash, nullptr) == 1 &&
        EVP_PKEY_sign_init(context.get()) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), isPss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING) == 1 &&
        EVP_PKEY_CTX_set_signature_md(context.get(), hash) == 1 &&
        (!isPss || EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), RSA_PSS_SALTLEN_DIGEST) == 1) &&
        EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char *>(signature.data()), &length, hashed.data(),
                      hashedBytes) == 1;
    ERR_clear_error();
    signature.resize(isSigned ? length : 0);
    return signature;
}
