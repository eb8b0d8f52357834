// SPDX-License-Identifier: MIT
#include "server/instancelock.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>

#include <cerrno>
#include <functional>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** Bounds the races with other processes that start at the same time. */
constexpr int kMaxRounds = 1000;
/** A pause of random length, so that two processes that met do not meet again. */
constexpr quint32 kMaxPauseMs = 20;

/** Hashes the id, because it contains the user's name, which may have any length and form. */
QByteArray prefixFor(const QString &id)
{
    const QByteArray digest = QCryptographicHash::hash(id.toUtf8(), QCryptographicHash::Sha256).toHex().first(16);
    return "zarvo-" + digest + '-' + QByteArray::number(::geteuid()) + '-';
}

bool isOurFile(const struct stat &status)
{
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid() && status.st_nlink == 1;
}

struct Closer
{
    void operator()(DIR *entries) const { ::closedir(entries); }
};

/** Calls @p use with the name of each of our own files that begins with the prefix, until it returns false. */
void forEachFile(const QByteArray &folder, const QByteArray &prefix, const std::function<bool(const char *)> &use)
{
    const std::unique_ptr<DIR, Closer> entries(::opendir(folder.constData()));
    if (!entries) {
        return;
    }
    while (const dirent *const entry = ::readdir(entries.get())) { // NOLINT(concurrency-mt-unsafe): a stream of ours
        struct stat status = {};
        // Looked at before it is opened: a stranger may have put thousands of files there, or a device.
        if (qstrncmp(entry->d_name, prefix.constData(), static_cast<size_t>(prefix.size())) == 0 &&
            ::fstatat(::dirfd(entries.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && isOurFile(status) &&
            !use(entry->d_name)) {
            return;
        }
    }
}

/** Opens a lock file of ours. -1 if it is missing or somebody else has put it there. */
int openLockFile(const QByteArray &path, int create)
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

enum class Locking { Locked, Held, Failed };

/**
 * @param kind  LOCK_EX, or LOCK_SH to find out whether another process holds the file. Processes that only look do not
 *              disturb each other then
 * @return Failed also if the file was removed after it had been opened: its lock says nothing about other processes
 */
Locking lock(int descriptor, int kind)
{
    struct stat status = {};
    if (::flock(descriptor, kind | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? Locking::Held : Locking::Failed;
    }
    return ::fstat(descriptor, &status) == 0 && status.st_nlink == 1 ? Locking::Locked : Locking::Failed;
}

bool isPrivateFolder(const QByteArray &path)
{
    struct stat status = {};
    return ::lstat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

} // namespace

/** A file that this process has locked. Removed while it is still locked, so that no file is left when it ends. */
class InstanceLock::File final
{
public:
    File(int descriptor_, const QByteArray &folder_, const QByteArray &name_)
        : descriptor(descriptor_)
        , folder(folder_)
        , name(name_)
    {
    }
    ~File()
    {
        struct stat ours = {};
        struct stat there = {};
        const QByteArray path = folder + '/' + name;
        // A cleaner may have removed it meanwhile, and another process may have made one of this name.
        if (::fstat(descriptor, &ours) == 0 && ::lstat(path.constData(), &there) == 0 && ours.st_dev == there.st_dev &&
            ours.st_ino == there.st_ino) {
            ::unlink(path.constData());
        }
        ::close(descriptor);
    }
    Q_DISABLE_COPY_MOVE(File)

    void refresh() const { ::futimens(descriptor, nullptr); }

    [[nodiscard]] bool is(const QByteArray &folder_, const char *name_) const
    {
        return folder == folder_ && name == name_;
    }

private:
    const int descriptor;
    const QByteArray folder;
    const QByteArray name;
};

InstanceLock::InstanceLock(const QString &id, const QList<QByteArray> &folders)
    : prefix(prefixFor(id))
    , places(folders)
{
}

InstanceLock::~InstanceLock()
{
    release();
}

QList<QByteArray> InstanceLock::folders()
{
    QList<QByteArray> all;
    // Not what XDG_RUNTIME_DIR names: all servers of the user must agree, whatever their environment is.
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

bool InstanceLock::take()
{
    if (!held.empty()) {
        return true;
    }
    for (int round = 0; round < kMaxRounds; ++round) {
        const Result result = tryTake();
        if (result == Result::Taken) {
            return true;
        }
        release();
        if (result == Result::Elsewhere) {
            return false;
        }
        ::usleep(1000 * QRandomGenerator::global()->bounded(1U, kMaxPauseMs));
    }
    return false;
}

void InstanceLock::refresh() const
{
    for (const std::unique_ptr<File> &file : held) {
        file->refresh();
    }
}

InstanceLock::Result InstanceLock::tryTake()
{
    if (isHeldElsewhere()) {
        return Result::Elsewhere;
    }
    // From here on, another process counts as running only in the next round, without locks of our own. Two processes
    // could otherwise see each other's locks and both end.
    for (const QByteArray &folder : places) {
        if (!takeIn(folder)) {
            return Result::Lost;
        }
    }
    // Two processes may have locked files of different names, because a stranger put something under the usual name
    // in between. The one that looks later sees the other's file here.
    if (isHeldElsewhere()) {
        return Result::Lost;
    }
    removeStaleFiles();
    return Result::Taken;
}

bool InstanceLock::isHeldElsewhere() const
{
    bool found = false;
    for (const QByteArray &folder : places) {
        forEachFile(folder, prefix, [this, &found, &folder](const char *name) {
            if (holds(folder, name)) {
                return true;
            }
            const int descriptor = openLockFile(folder + '/' + name, 0);
            found = found || (descriptor != -1 && lock(descriptor, LOCK_SH) == Locking::Held);
            if (descriptor != -1) {
                ::close(descriptor);
            }
            return !found;
        });
    }
    return found;
}

void InstanceLock::removeStaleFiles() const
{
    for (const QByteArray &folder : places) {
        forEachFile(folder, prefix, [this, &folder](const char *name) {
            const QByteArray path = folder + '/' + name;
            const int descriptor = holds(folder, name) ? -1 : openLockFile(path, 0);
            if (descriptor != -1) {
                if (lock(descriptor, LOCK_EX) == Locking::Locked) {
                    ::unlink(path.constData());
                }
                ::close(descriptor);
            }
            return true;
        });
    }
}

bool InstanceLock::takeIn(const QByteArray &folder)
{
    // The usual name first: processes that start at the same time then meet at one file, and the kernel decides.
    QByteArray name = prefix + "0.lock";
    int descriptor = openLockFile(folder + '/' + name, O_CREAT);
    if (descriptor == -1) {
        // Nobody can guess this name, so nobody can have taken it.
        name = prefix + QByteArray::number(QRandomGenerator::system()->generate64(), 16) + ".lock";
        descriptor = openLockFile(folder + '/' + name, O_CREAT | O_EXCL);
    }
    if (descriptor == -1) {
        return true; // the folder is full or cannot be written to; the others have to do
    }
    if (lock(descriptor, LOCK_EX) != Locking::Locked) {
        ::close(descriptor);
        return false;
    }
    held.push_back(std::make_unique<File>(descriptor, folder, name));
    return true;
}

void InstanceLock::release()
{
    held.clear();
}

bool InstanceLock::holds(const QByteArray &folder, const char *name) const
{
    for (const std::unique_ptr<File> &file : held) {
        if (file->is(folder, name)) {
            return true;
        }
    }
    return false;
}
