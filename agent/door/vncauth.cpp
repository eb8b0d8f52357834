// SPDX-License-Identifier: MIT
#include "agent/door/vncauth.h"

#include "support/vncdes.h"

#include <openssl/crypto.h>

#include <QRandomGenerator>

#include <array>

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
    return vncDesEncrypted(password, challenge);
}

bool equalInConstantTime(const QByteArray &a, const QByteArray &b)
{
    return !a.isEmpty() && a.size() == b.size() &&
           CRYPTO_memcmp(a.constData(), b.constData(), static_cast<size_t>(a.size())) == 0;
}
