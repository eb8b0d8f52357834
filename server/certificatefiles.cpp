// SPDX-License-Identifier: MIT
#include "server/certificatefiles.h"

#include "support/programrunner.h"

#include <QFile>
#include <QFileInfo>

#include <optional>

using namespace Qt::StringLiterals;

namespace {

std::optional<struct stat> stateOf(const QString &path)
{
    struct stat state = {};
    if (::stat(QFile::encodeName(path).constData(), &state) != 0) {
        return std::nullopt;
    }
    return state;
}

/** Whether a file was not written to. Compares st_ctim, because programs can set st_mtim back. */
bool isUntouched(const struct stat &before, const struct stat &after)
{
    return before.st_dev == after.st_dev && before.st_ino == after.st_ino && before.st_size == after.st_size &&
           before.st_ctim.tv_sec == after.st_ctim.tv_sec && before.st_ctim.tv_nsec == after.st_ctim.tv_nsec;
}

} // namespace

CertificateFiles::CertificateFiles(const QString &certificatePath_, const QString &keyPath_)
    : certificatePath(certificatePath_)
    , keyPath(keyPath_)
{
}

bool CertificateFiles::createIfMissing(QString *error)
{
    if (QFile::exists(certificatePath)) {
        return true;
    }
    const std::optional<struct stat> keyBefore = stateOf(keyPath);
    const QStringList arguments = {u"req"_s, u"-x509"_s, u"-newkey"_s,    u"rsa:2048"_s, u"-nodes"_s, u"-keyout"_s,
                                   keyPath,  u"-out"_s,  certificatePath, u"-days"_s,    u"365"_s,    u"-batch"_s};
    if (!runProgram(u"openssl"_s, arguments, QString(), -1, error)) {
        return false;
    }
    if (const std::optional<struct stat> certificate = stateOf(certificatePath)) {
        created.push_back({QFileInfo(certificatePath).canonicalFilePath(), *certificate});
    }
    const std::optional<struct stat> key = stateOf(keyPath);
    if (key && !(keyBefore && isUntouched(*keyBefore, *key))) {
        created.push_back({QFileInfo(keyPath).canonicalFilePath(), *key});
    }
    return true;
}

void CertificateFiles::removeCreated() const
{
    for (const CreatedFile &file : created) {
        const std::optional<struct stat> now = stateOf(file.path);
        if (now && S_ISREG(now->st_mode) && isUntouched(file.state, *now)) {
            QFile::remove(file.path);
        }
    }
}
