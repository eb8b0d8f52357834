// SPDX-License-Identifier: MIT
#include "support/vncdes.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>

namespace {

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

constexpr qsizetype kKeyBytes = 8;
constexpr qsizetype kKeys = 3;

unsigned char mirrored(unsigned char byte)
{
    unsigned char result = 0;
    for (int bit = 0; bit < 8; ++bit) {
        result = static_cast<unsigned char>((result << 1) | ((byte >> bit) & 1));
    }
    return result;
}

/**
 * Single DES belongs to a part of OpenSSL that may not be there. Three-key DES with the same key three times is the
 * same function.
 */
std::array<unsigned char, kKeys * kKeyBytes> tripleKey(const QByteArray &key)
{
    std::array<unsigned char, kKeys *kKeyBytes> triple = {};
    const qsizetype used = std::min(key.size(), kKeyBytes);
    for (qsizetype i = 0; i < used; ++i) {
        const unsigned char byte = mirrored(static_cast<unsigned char>(key[i]));
        for (qsizetype copy = 0; copy < kKeys; ++copy) {
            triple[static_cast<size_t>(copy * kKeyBytes + i)] = byte;
        }
    }
    return triple;
}

} // namespace

QByteArray vncDesEncrypted(const QByteArray &key, const QByteArray &blocks)
{
    if (blocks.size() % kVncDesBlockBytes != 0) {
        return {};
    }
    const CipherContext context(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
    std::array<unsigned char, kKeys *kKeyBytes> triple = tripleKey(key);
    QByteArray encrypted(blocks.size() + EVP_MAX_BLOCK_LENGTH, '\0');
    int length = 0;
    const bool isDone = context &&
                        EVP_EncryptInit_ex(context.get(), EVP_des_ede3_ecb(), nullptr, triple.data(), nullptr) == 1 &&
                        EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
                        EVP_EncryptUpdate(context.get(), reinterpret_cast<unsigned char *>(encrypted.data()), &length,
                                          reinterpret_cast<const unsigned char *>(blocks.constData()),
                                          static_cast<int>(blocks.size())) == 1;
    OPENSSL_cleanse(triple.data(), triple.size());
    return isDone && length == blocks.size() ? encrypted.first(length) : QByteArray();
}
