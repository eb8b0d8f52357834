// SPDX-License-Identifier: MIT
#include "server/certificates.h"

#include "support/programrunner.h"

#include <QFile>

using namespace Qt::StringLiterals;

bool createCertificates(const QString &certificatePath, const QString &keyPath, QString *error)
{
    if (QFile::exists(certificatePath)) {
        return true;
    }
    const QStringList arguments = {u"req"_s, u"-x509"_s, u"-newkey"_s,    u"rsa:2048"_s, u"-nodes"_s, u"-keyout"_s,
                                   keyPath,  u"-out"_s,  certificatePath, u"-days"_s,    u"365"_s,    u"-batch"_s};
    return runProgram(u"openssl"_s, arguments, QString(), -1, error);
}
