// SPDX-License-Identifier: MIT
#include "rpc/tlsrules.h"

#include <QList>
#include <QSslCipher>
#include <QSslConfiguration>

using namespace Qt::StringLiterals;

namespace {

/** By OpenSSL's names. All of TLS 1.3 is meant so. */
bool isStrong(const QSslCipher &cipher)
{
    const QString name = cipher.name();
    return cipher.protocol() == QSsl::TlsV1_3 ||
           (name.startsWith("ECDHE-"_L1) && (name.contains("-GCM-"_L1) || name.contains("-CHACHA20-POLY1305"_L1)));
}

QList<QSslCipher> strongCiphers()
{
    QList<QSslCipher> ciphers = QSslConfiguration::supportedCiphers();
    erase_if(ciphers, [](const QSslCipher &cipher) { return !isStrong(cipher); });
    return ciphers;
}

} // namespace

void requireStrongTls(QSslConfiguration *configuration)
{
    static const QList<QSslCipher> ciphers = strongCiphers();
    configuration->setProtocol(QSsl::TlsV1_2OrLater);
    configuration->setCiphers(ciphers);
}
