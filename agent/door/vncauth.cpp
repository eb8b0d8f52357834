// SPDX-License-Identifier: MIT
#include "agent/door/vncauth.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <QRandomGenerator>

#include <algorithm>
#include <array>
#include <memory>

namespace {

constexpr qsizetype kKeyBytes = 8;

struct CipherContextDeleter
{
    void operator()(EVP_CIPHER_CTX *context) const { EVP_CIPHER_CTX_free(context); }
};

unsigned char mirrored(unsigned char byte)
{
    unsigned char result = 0;
    for (int bit = 0; bit < 8; ++bit) {
        result = static_cast<unsigned char>((result << 1) | ((byte >> bit) & 1));
    }
    return result;
}

// Single DES has left the library's default set; three-key DES with the same key three times is the same function. The
// bits of each key byte are in reverse order, a habit of this authentication method.
std::array<unsigned char, 3 * kKeyBytes> cipherKey(const QByteArray &password)
{
    std::array<unsigned char, 3 *kKeyBytes> key = {};
    const qsizetype used = std::min(password.size(), kKeyBytes);
    for (qsizetype i = 0; i < used; ++i) {
        const unsigned char byte = mirrored(static_cast<unsigned char>(password[i]));
        for (qsizetype copy = 0; copy < 3; ++copy) {
            key[static_cast<size_t>(copy * kKeyBytes + i)] = byte;
        }
    }
    return key;
}

} // namespace

QByteArray newVncChallenge()
{
    std::array<quint32, kVncChallengeBytes / sizeof(quint32)> words = {};
    QRandomGenerator::system()->fillRange(words.data(), static_cast<qsizetype>(words.size()));
    return QByteArray(reinterpret_cast<const char *>(words.data()), kVncChallengeBytes);
}

QByteArray vncAuthResponse(const QByteArray &password, const QByteArray &challenge)
{
    if (challenge.size() != kVncChallengeBytes) {
        return {};
    }
    const std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter> context(EVP_CIPHER_CTX_new());
    std::array<unsigned char, 3 *kKeyBytes> key = cipherKey(password);
    std::array<unsigned char, kVncChallengeBytes + EVP_MAX_BLOCK_LENGTH> output = {};
    int length = 0;
    const bool done = context &&
                      EVP_EncryptInit_ex(context.get(), EVP_des_ede3_ecb(), nullptr, key.data(), nullptr) == 1 &&
                      EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
                      EVP_EncryptUpdate(context.get(), output.data(), &length,
                                        reinterpret_cast<const unsigned char *>(challenge.constData()),
                                        static_cast<int>(challenge.size())) == 1;
    OPENSSL_cleanse(key.data(), key.size());
    if (!done || length != kVncChallengeBytes) {
        return {};
    }
    return QByteArray(reinterpret_cast<const char *>(output.data()), length);
}

bool equalInConstantTime(const QByteArray &a, const QByteArray &b)
{
    return !a.isEmpty() && a.size() == b.size() &&
           CRYPTO_memcmp(a.constData(), b.constData(), static_cast<size_t>(a.size())) == 0;
}
