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
