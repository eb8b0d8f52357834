// SPDX-License-Identifier: MIT
#pragma once

#include <openssl/types.h>

#include <QByteArray>

#include <memory>

/** A self-signed certificate with its RSA key, made in memory. */
struct TlsPair
{
    std::shared_ptr<EVP_PKEY> key;
    QByteArray certificatePem;
    QByteArray keyPem;

    /** Takes a few hundred milliseconds. Ends the process on failure. */
    [[nodiscard]] static TlsPair make();
};

/** One operation with the key @p key: PKCS#1 of @p bytes, or of bytes that are padded already. Empty on failure. */
[[nodiscard]] QByteArray signedWith(EVP_PKEY *key, const QByteArray &bytes, bool isPadded);
