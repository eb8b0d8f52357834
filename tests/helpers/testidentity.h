// SPDX-License-Identifier: MIT
#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QString>

class QTemporaryDir;

/** A certificate with its key. */
struct TestIdentity
{
    QSslCertificate certificate;
    QSslKey key;
};

/**
 * Makes a self-signed certificate with the "openssl" program in @p dir, as the files NAME.cert and NAME.key. Blocks
 * until the program has ended.
 *
 * @param keyOf     the name of an earlier identity whose key is used; empty: a new key
 * @param identity  set only on success
 */
[[nodiscard]] bool makeTestIdentity(const QTemporaryDir &dir, const QString &name, const QString &keyOf,
                                    TestIdentity *identity);
