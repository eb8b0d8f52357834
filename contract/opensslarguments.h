// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/**
 * The arguments with which the program "openssl" makes a self-signed certificate and its key, without a pass phrase.
 * The server at its first start and the renewal make the same kind of pair.
 */
[[nodiscard]] inline QStringList opensslArguments(const QString &keyPath, const QString &certificatePath)
{
    return {QStringLiteral("req"),
            QStringLiteral("-x509"),
            QStringLiteral("-newkey"),
            QStringLiteral("rsa:2048"),
            QStringLiteral("-nodes"),
            QStringLiteral("-keyout"),
            keyPath,
            QStringLiteral("-out"),
            certificatePath,
            QStringLiteral("-days"),
            QStringLiteral("365"),
            QStringLiteral("-batch")};
}
