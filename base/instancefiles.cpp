// SPDX-License-Identifier: MIT
#include "base/instancefiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>

#include <cerrno>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** Hashes the id, because it contains the user's name, which may have any length and form. */
QByteArray prefixFor(const QString &id)
{
    const QByteArray digest = QCryptographicHash::hash(id.toUtf8(), QCryptographicHash::Sha256).toHex().first(16);
    return "zarvo-" + digest + '-' + QByteArray::number(::geteuid()) + '-';
}

bool isOurFile(const struct stat &status)
{
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid();
}

bool isPrivateFolder(const QByteArray &path)
{
    struct stat status = {};
    return ::lstat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

struct Closer
{
    void operator()(DIR *entries) const { ::closedir(entries); }
};

} // namespace

QString serverInstanceId()
{
    return u"zarvo_server-%1"_s.arg(qEnvironmentVariable("USER"));
}

InstanceFiles::InstanceFiles(const QString &id, const QList<QByteArray> &folders)
    : namePrefix(prefixFor(id))
    , places(folders)
{
}

QList<QByteArray> InstanceFiles::standardFolders()
{
    QList<QByteArray> all;
    // Not what XDG_RUNTIME_DIR names: all processes of the user must agree, whatever their environment is.
    const QByteArray runtime = "/run/user/" + QByteArray::number(::geteuid());
    if (isPrivateFolder(runtime)) {
        all.append(runtime);
    }
    // A folder must be in the list once only, or our own lock would look like that of another process.
    for (const QString &folder : {QDir::tempPath(), u"/tmp"_s}) {
        const QByteArray path = QFile::encodeName(QDir(folder).canonicalPath());
        if (!path.isEmpty() && !all.contains(path)) {
            all.append(path);
        }
    }
    return all;
}

void InstanceFiles::forEach(const QByteArray &folder, const std::function<bool(const char *)> &use) const
{
    const std::unique_ptr<DIR, Closer> entries(::opendir(folder.constData()));
    if (!entries) {
        return;
    }
    const auto length = static_cast<size_t>(namePrefix.size());
    while (const dirent *const entry = ::readdir(entries.get())) { // NOLINT(concurrency-mt-unsafe): a stream of ours
        struct stat status = {};
        // Looked at before it is opened: a stranger may have put thousands of files there, or a device.
        if (qstrncmp(entry->d_name, namePrefix.constData(), length) == 0 &&
            ::fstatat(::dirfd(entries.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && isOurFile(status) &&
            !use(entry->d_name)) {
            return;
        }
    }
}

int InstanceFiles::open(const QByteArray &path, int create)
{
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int descriptor = ::open(path.constData(), flags | create, S_IRUSR | S_IWUSR);
    struct stat status = {};
    if (descriptor != -1 && (::fstat(descriptor, &status) != 0 || !isOurFile(status))) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

InstanceFiles::Locking InstanceFiles::lock(int descriptor, const QByteArray &path, int kind)
{
    if (::flock(descriptor, kind | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? Locking::Held : Locking::Failed;
    }
    return isAt(descriptor, path) ? Locking::Locked : Locking::Failed;
}

bool InstanceFiles::isAt(int descriptor, const QByteArray &path)
{
    struct stat ours = {};
    struct stat there = {};
    return ::fstat(descriptor, &ours) == 0 && ::lstat(path.constData(), &there) == 0 && ours.st_dev == there.st_dev &&
           ours.st_ino == there.st_ino;
}

bool InstanceFiles::hasOneName(int descriptor)
{
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 && status.st_nlink == 1;
}
