// SPDX-License-Identifier: MIT
#include "server/qtsinglecoreapplication.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** How many names are tried for the lock file. Other users may have put files there under our names. */
constexpr int kLockNames = 16;

/** Hashes the id, because it contains the user's name, which may have any length and form. */
QString lockPath(const QString &folder, const QString &id, int number)
{
    const QByteArray digest = QCryptographicHash::hash(id.toUtf8(), QCryptographicHash::Sha256).toHex().first(16);
    return QDir(folder).filePath(
        u"zarvo-%1-%2-%3.lock"_s.arg(QString::fromLatin1(digest)).arg(::geteuid()).arg(number));
}

/** Opens our lock file. @p create is O_CREAT or 0. -1 if it is missing or somebody else has put it there. */
int openLockFile(const QString &path, int create)
{
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int descriptor = ::open(QFile::encodeName(path).constData(), flags | create, S_IRUSR | S_IWUSR);
    if (descriptor == -1) {
        return -1;
    }
    struct stat status = {};
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid() &&
        status.st_nlink == 1) {
        return descriptor;
    }
    ::close(descriptor);
    return -1;
}

bool isSameFile(int first, int second)
{
    struct stat a = {};
    struct stat b = {};
    return ::fstat(first, &a) == 0 && ::fstat(second, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

QtSingleCoreApplication::QtSingleCoreApplication(const QString &id_, int &argc, char **argv)
    : QCoreApplication(argc, argv)
    , id(id_)
{
}

QtSingleCoreApplication::~QtSingleCoreApplication()
{
    releaseLock();
}

void QtSingleCoreApplication::releaseLock()
{
    if (lock != -1) {
        ::close(lock);
        lock = -1;
    }
}

bool QtSingleCoreApplication::isRunning()
{
    if (lock != -1) {
        return false;
    }
    // Try every name, even after we hold a lock. The other process may hold a later name, because the file of another
    // user had an earlier one. That file may be gone now.
    for (int number = 0; number < 2 * kLockNames; ++number) {
        // The second half is for a temporary directory that is missing or full: then the lock is in /tmp.
        const QString folder = number < kLockNames ? QDir::tempPath() : u"/tmp"_s;
        const int descriptor = openLockFile(lockPath(folder, id, number % kLockNames), lock == -1 ? O_CREAT : 0);
        if (descriptor == -1) {
            continue;
        }
        // Usually both folders are the same one. Our own lock must not look like that of another process.
        if (lock != -1 && isSameFile(descriptor, lock)) {
            ::close(descriptor);
            continue;
        }
        const bool locked = ::flock(descriptor, LOCK_EX | LOCK_NB) == 0;
        if (!locked && errno == EWOULDBLOCK) {
            ::close(descriptor);
            releaseLock();
            return true;
        }
        if (locked && lock == -1) {
            lock = descriptor;
        } else {
            ::close(descriptor);
        }
    }
    return false;
}
