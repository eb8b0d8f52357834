// SPDX-License-Identifier: MIT
#include "server/certificatefiles.h"

#include "contract/opensslarguments.h"
#include "support/pathtrust.h"
#include "support/programrunner.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

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

/** Creates an empty file of ours. Fails if a file is there. */
bool createEmpty(const QByteArray &path)
{
    const int descriptor = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor != -1) {
        ::close(descriptor);
    }
    return descriptor != -1;
}

/**
 * Makes sure that nobody else gets to read or redirect what is written to @p path.
 *
 * In a folder where others can create files, a stranger could put his own file or a symlink there just before openssl
 * writes the key. So our own file must be there first.
 *
 * @param created  set to the path of the file that was created, if one was
 */
bool prepareForWriting(const QString &path, QByteArray *created, QString *error)
{
    FoundPath found;
    QString problem;
    switch (followTrustedPath(path, &found, &problem)) {
    case PathTrust::Untrusted:
        *error = problem;
        return false;
    case PathTrust::Missing:
        if (found.isInSharedFolder && !createEmpty(found.path)) {
            *error = u"Failed to open the file \"%1\": %2"_s.arg(path, qt_error_string(errno));
            return false;
        }
        *created = found.isInSharedFolder ? found.path : QByteArray();
        return true;
    case PathTrust::Trusted: // openssl overwrites it
    case PathTrust::Failed:  // openssl tells why
        break;
    }
    return true;
}

/** Removes what prepareForWriting() created, if nobody has written to it: an empty certificate would fail each start.
 */
void removeIfEmpty(const QByteArray &path)
{
    struct stat state = {};
    if (!path.isEmpty() && ::lstat(path.constData(), &state) == 0 && S_ISREG(state.st_mode) && state.st_size == 0) {
        ::unlink(path.constData());
    }
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
    QByteArray emptyKey;
    QByteArray emptyCertificate;
    if (!prepareForWriting(keyPath, &emptyKey, error)) {
        return false;
    }
    if (!prepareForWriting(certificatePath, &emptyCertificate, error)) {
        removeIfEmpty(emptyKey);
        return false;
    }
    const std::optional<struct stat> keyBefore = stateOf(keyPath);
    if (!runProgram(u"openssl"_s, opensslArguments(keyPath, certificatePath), QString(), -1, error)) {
        removeIfEmpty(emptyKey);
        removeIfEmpty(emptyCertificate);
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
