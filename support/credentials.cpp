// SPDX-License-Identifier: MIT
#include "support/credentials.h"

#include "support/filereader.h"
#include "support/pathtrust.h"

#include <QSslCertificate>
#include <QSslKey>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxCredentialBytes = 1024 * 1024;
/** Bounds the retries. Nobody renews a certificate so often. */
constexpr int kMaxAttempts = 5;

bool readCredential(const QString &path, QByteArray *data, QString *error)
{
    if (isSpecialFile(path)) {
        *error = notRegularFileError(path);
        return false;
    }
    FoundPath found;
    if (followTrustedPath(path, &found, error) != PathTrust::Trusted) {
        return false;
    }
    return readFile(path, kMaxCredentialBytes, data, error);
}

} // namespace

bool readCertificate(const QString &path, QSslCertificate *certificate, QString *error)
{
    QByteArray data;
    if (!readCredential(path, &data, error)) {
        return false;
    }
    const QSslCertificate parsed(data, QSsl::Pem);
    if (parsed.isNull()) {
        *error = u"Invalid certificate in file \"%1\""_s.arg(path);
        return false;
    }
    *certificate = parsed;
    return true;
}

bool readPrivateKey(const QString &path, QSslKey *key, QString *error)
{
    QByteArray data;
    if (!readCredential(path, &data, error)) {
        return false;
    }
    const QSslKey parsed(data, QSsl::Rsa, QSsl::Pem, QSsl::PrivateKey, QByteArray(""));
    if (parsed.isNull()) {
        *error = u"Invalid private key in file \"%1\""_s.arg(path);
        return false;
    }
    *key = parsed;
    return true;
}

bool readCredentials(const QString &keyPath, const QString &certificatePath, QSslKey *key, QSslCertificate *certificate,
                     QString *error)
{
    QSslKey first;
    if (!readPrivateKey(keyPath, &first, error)) {
        return false;
    }
    for (int attempt = 1;; ++attempt) {
        QSslCertificate found;
        QSslKey second;
        if (!readCertificate(certificatePath, &found, error) || !readPrivateKey(keyPath, &second, error)) {
            return false;
        }
        if (first == second || attempt == kMaxAttempts) {
            *key = second;
            *certificate = found;
            return true;
        }
        first = second;
    }
}

QString keyExposure(const QString &path)
{
    FoundPath found;
    QString ignored;
    if (followTrustedPath(path, &found, &ignored) != PathTrust::Trusted ||
        (found.status.st_mode & (S_IRGRP | S_IROTH)) == 0) {
        return {};
    }
    return u"Others can read the private key in file \"%1\" (mode %2)"_s.arg(
        path, QString::number(found.status.st_mode & 07777, 8).rightJustified(4, u'0'));
}
