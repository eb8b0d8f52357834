// SPDX-License-Identifier: MIT
#include "tests/helpers/testidentity.h"

#include "support/credentials.h"
#include "support/programrunner.h"

#include <QTemporaryDir>

using namespace Qt::StringLiterals;

bool makeTestIdentity(const QTemporaryDir &dir, const QString &name, const QString &keyOf, TestIdentity *identity)
{
    const QString keyPath = dir.filePath((keyOf.isEmpty() ? name : keyOf) + u".key"_s);
    const QString certificatePath = dir.filePath(name + u".cert"_s);
    QStringList arguments = {u"req"_s,   u"-x509"_s, u"-nodes"_s, u"-out"_s,      certificatePath,
                             u"-days"_s, u"365"_s,   u"-subj"_s,  u"/CN=server"_s};
    if (keyOf.isEmpty()) {
        arguments += {u"-newkey"_s, u"rsa:2048"_s, u"-keyout"_s, keyPath};
    } else {
        arguments += {u"-new"_s, u"-key"_s, keyPath};
    }
    QString error;
    const bool made = runProgram(u"openssl"_s, arguments, QString(), 60000, &error) &&
                      readCertificate(certificatePath, &identity->certificate, &error) &&
                      readPrivateKey(keyPath, &identity->key, &error);
    if (!made) {
        qWarning("%s", qPrintable(error));
    }
    return made;
}
