// SPDX-License-Identifier: MIT
#include "client/server/certificatestore.h"

#include "client/server/certificatepair.h"
#include "client/server/serverlauncher.h"
#include "contract/opensslarguments.h"
#include "support/filereader.h"
#include "support/pathtrust.h"
#include "support/privatefile.h"
#include "support/programrunner.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSslCertificate>

#include <cerrno>
#include <chrono>
#include <ctime>

#include <fcntl.h>
#include <stdio.h> // rename()
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxPemBytes = 1024 * 1024;
constexpr int kOpensslTimeoutMs = 120000;

/** Longer than any renewal: the timeouts for openssl and for ssh to some hosts are minutes. */
constexpr auto kSparedAge = std::chrono::hours(1);

const QString kUsed = u"server_pair"_s;
const QString kPrefix = u"server_pair-"_s;
const QString kCertificate = u"cert"_s;
const QString kKey = u"key"_s;

QByteArray encoded(const QDir &folder, const QString &name)
{
    return QFile::encodeName(folder.filePath(name));
}

QString randomSuffix()
{
    return QString::number(QRandomGenerator::system()->generate64(), 16);
}

bool failedTo(const QString &what, const QString &path, QString *error)
{
    *error = u"Failed to %1 \"%2\": %3"_s.arg(what, path, qt_error_string(errno));
    return false;
}

/** Until it has returned, a power failure can undo what was renamed in the folder. */
void flushFolder(const QString &path)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor != -1) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

void flushFile(const QString &path)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor != -1) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

bool isYoung(const QString &path)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 &&
           ::time(nullptr) - status.st_mtime < std::chrono::seconds(kSparedAge).count();
}

bool isReadableFile(const QString &path)
{
    return QFileInfo(path).isFile() && QFileInfo(path).isReadable();
}

} // namespace

CertificateStore::CertificateStore(const QString &certificatePath_, const QString &keyPath_)
    : certificatePath(certificatePath_)
    , keyPath(keyPath_)
    , folder(QDir::cleanPath(QFileInfo(certificatePath_).path()))
{
}

CertificateStore::~CertificateStore()
{
    if (lockDescriptor != -1) {
        ::close(lockDescriptor);
    }
}

bool CertificateStore::lock(QString *error)
{
    if (lockDescriptor == -1) {
        lockDescriptor = ::open(QFile::encodeName(folder.path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    if (lockDescriptor == -1) {
        return failedTo(u"open"_s, folder.path(), error);
    }
    // Some network file systems have no locks. There, the age of the pairs has to protect them.
    if (::flock(lockDescriptor, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK) {
        *error = u"Another renewal of the certificate is running"_s;
        return false;
    }
    return true;
}

bool CertificateStore::isValidId(const QString &id)
{
    static const QRegularExpression form(u"\\A[0-9a-f]{32}\\z"_s);
    return form.match(id).hasMatch();
}

bool CertificateStore::makeFolder(QString *error) const
{
    FoundPath found;
    return makePrivatePath(folder.path(), error) &&
           followTrustedPath(folder.path(), &found, error) == PathTrust::Trusted;
}

bool CertificateStore::makePairFolder(QString *name, QString *error) const
{
    const QString made = kPrefix + u"new-"_s + randomSuffix();
    if (::mkdir(encoded(folder, made).constData(), S_IRWXU) != 0) {
        return failedTo(u"create the directory"_s, folder.filePath(made), error);
    }
    *name = made;
    return true;
}

bool CertificateStore::create(QString *id, QString *error)
{
    QString name;
    if (!makeFolder(error) || !lock(error) || !makePairFolder(&name, error)) {
        return false;
    }
    const QDir made(folder.filePath(name));
    const mode_t mask = ::umask(077);
    const bool isMade = runProgram(u"openssl"_s, opensslArguments(made.filePath(kKey), made.filePath(kCertificate)),
                                   QString(), kOpensslTimeoutMs, error, ReasonLine::Last);
    ::umask(mask);
    if (!isMade) {
        removePair(name);
        return false;
    }
    return keep(name, id, error);
}

bool CertificateStore::add(const QByteArray &certificate, const QByteArray &key, QString *id, QString *error)
{
    QString name;
    if (!makeFolder(error) || !makePairFolder(&name, error)) {
        return false;
    }
    const QDir made(folder.filePath(name));
    if (!writePrivateFile(made.filePath(kKey), key, error) ||
        !writePrivateFile(made.filePath(kCertificate), certificate, error)) {
        removePair(name);
        return false;
    }
    return keep(name, id, error);
}

bool CertificateStore::keep(const QString &name, QString *id, QString *error) const
{
    const QDir made(folder.filePath(name));
    QByteArray certificate;
    QByteArray key;
    if (!readFile(made.filePath(kCertificate), kMaxPemBytes, &certificate, error) ||
        !readFile(made.filePath(kKey), kMaxPemBytes, &key, error)) {
        removePair(name);
        return false;
    }
    if (!belongTogether(certificate, key)) { // for example after a full disk, which openssl does not notice
        removePair(name);
        *error = u"The new certificate and key do not belong together"_s;
        return false;
    }
    flushFile(made.filePath(kCertificate));
    flushFile(made.filePath(kKey));
    flushFolder(made.path());
    const QString stored = QString::fromLatin1(
        QSslCertificate(certificate, QSsl::Pem).digest(QCryptographicHash::Sha256).toHex().first(32));
    if (::rename(encoded(folder, name).constData(), encoded(folder, kPrefix + stored).constData()) != 0) {
        const int reason = errno;
        removePair(name);
        if (reason != EEXIST && reason != ENOTEMPTY) {
            errno = reason;
            return failedTo(u"create the directory"_s, folder.filePath(kPrefix + stored), error);
        }
        // Another host that shares the folder has stored it already.
        if (!read(stored, &certificate, &key, error)) {
            return false;
        }
    }
    flushFolder(folder.path());
    *id = stored;
    return true;
}

bool CertificateStore::read(const QString &id, QByteArray *certificate, QByteArray *key, QString *error) const
{
    const QDir pair(folder.filePath(kPrefix + id));
    FoundPath found;
    if (followTrustedPath(pair.filePath(kKey), &found, error) != PathTrust::Trusted ||
        followTrustedPath(pair.filePath(kCertificate), &found, error) != PathTrust::Trusted ||
        !readFile(pair.filePath(kKey), kMaxPemBytes, key, error) ||
        !readFile(pair.filePath(kCertificate), kMaxPemBytes, certificate, error)) {
        return false;
    }
    if (!belongTogether(*certificate, *key)) {
        *error = u"Certificate and key in \"%1\" do not belong together"_s.arg(pair.path());
        return false;
    }
    return true;
}

bool CertificateStore::isUsed(const QString &id) const
{
    return linkTarget(kUsed) == kPrefix + id && linkTarget(QFileInfo(keyPath).fileName()) == kUsed + u'/' + kKey &&
           linkTarget(QFileInfo(certificatePath).fileName()) == kUsed + u'/' + kCertificate;
}

bool CertificateStore::use(const QString &id, QString *error)
{
    QByteArray certificate;
    QByteArray key;
    if (!makeFolder(error) || !read(id, &certificate, &key, error)) {
        return false;
    }
    if (isUsed(id)) {
        return true;
    }
    // Without a whole pair there is nothing to keep, and the order of the steps does not matter.
    const bool isWhole = isReadableFile(keyPath) && isReadableFile(certificatePath);
    if (isWhole && !adopt(error)) {
        return false;
    }
    const QString previous = linkTarget(kUsed);
    // This one rename exchanges both files.
    if (!putLink(kPrefix + id, kUsed, error) ||
        (!isWhole && (!putLink(kUsed + u'/' + kKey, QFileInfo(keyPath).fileName(), error) ||
                      !putLink(kUsed + u'/' + kCertificate, QFileInfo(certificatePath).fileName(), error)))) {
        return false;
    }
    flushFolder(folder.path());
    removeOldPairs(kPrefix + id, previous);
    return true;
}

bool CertificateStore::adopt(QString *error) const
{
    const QString keyName = QFileInfo(keyPath).fileName();
    const QString certificateName = QFileInfo(certificatePath).fileName();
    if (linkTarget(keyName) == kUsed + u'/' + kKey && linkTarget(certificateName) == kUsed + u'/' + kCertificate) {
        return true;
    }
    QByteArray certificate;
    QByteArray key;
    if (!readFile(keyPath, kMaxPemBytes, &key, error) ||
        !readFile(certificatePath, kMaxPemBytes, &certificate, error)) {
        return false;
    }
    const QString name = kPrefix + u"old-"_s + randomSuffix();
    const QDir old(folder.filePath(name));
    if (::mkdir(encoded(folder, name).constData(), S_IRWXU) != 0) {
        return failedTo(u"create the directory"_s, old.path(), error);
    }
    // Each step leaves both names with the content that they had.
    return writePrivateFile(old.filePath(kKey), key, error) &&
           writePrivateFile(old.filePath(kCertificate), certificate, error) && putLink(name, kUsed, error) &&
           putLink(kUsed + u'/' + kKey, keyName, error) && putLink(kUsed + u'/' + kCertificate, certificateName, error);
}

bool CertificateStore::putLink(const QString &target, const QString &name, QString *error) const
{
    const QString made = kPrefix + u"link-"_s + randomSuffix();
    if (::symlink(QFile::encodeName(target).constData(), encoded(folder, made).constData()) != 0) {
        return failedTo(u"create"_s, folder.filePath(made), error);
    }
    if (::rename(encoded(folder, made).constData(), encoded(folder, name).constData()) != 0) {
        const int reason = errno;
        ::unlink(encoded(folder, made).constData());
        errno = reason;
        return failedTo(u"replace"_s, folder.filePath(name), error);
    }
    return true;
}

QString CertificateStore::linkTarget(const QString &name) const
{
    QByteArray target(4096, '\0');
    const ssize_t length =
        ::readlink(encoded(folder, name).constData(), target.data(), static_cast<size_t>(target.size()));
    return length > 0 ? QFile::decodeName(target.first(length)) : QString();
}

void CertificateStore::removePair(const QString &name) const
{
    // All its files: a killed renewal may have left one under a temporary name.
    const QDir pair(folder.filePath(name));
    for (const QString &file : pair.entryList(QDir::Files | QDir::Hidden | QDir::System)) {
        ::unlink(encoded(pair, file).constData());
    }
    ::rmdir(encoded(folder, name).constData());
}

void CertificateStore::discard(const QString &id) const
{
    if (linkTarget(kUsed) != kPrefix + id) {
        removePair(kPrefix + id);
    }
}

void CertificateStore::removeOldPairs(const QString &used, const QString &previous) const
{
    for (const QString &name : folder.entryList({kPrefix + u'*'}, QDir::Dirs | QDir::Files | QDir::System)) {
        if (isYoung(folder.filePath(name))) {
            continue;
        }
        if (QFileInfo(folder.filePath(name)).isSymLink()) {
            ::unlink(encoded(folder, name).constData()); // of a killed renewal
        } else if (name != used && name != previous) {
            removePair(name);
        }
    }
}
