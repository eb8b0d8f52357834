// SPDX-License-Identifier: MIT
#include "base/filelogging.h"

#include "base/lockedfile.h"
#include "support/filereader.h"

#include <QMutexLocker>
#include <QTextStream>

#include <cstdio>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

/** Several processes can rotate while this one waits for the lock. After so many it writes to the file that it has. */
constexpr int kMaxSwitches = 5;

QByteArray oldPath(const QFile &file)
{
    return QFile::encodeName(file.fileName()) + ".old";
}

bool isSameFile(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/** Whether the open file is the one at the path. A symlink is not followed, because renaming it moves no file. */
bool isAt(const QFile &file, const QByteArray &path)
{
    struct stat open = {};
    struct stat there = {};
    return ::fstat(file.handle(), &open) == 0 && ::lstat(path.constData(), &there) == 0 && isSameFile(open, there);
}

/** Whether another process has rotated the file twice, so that it has no name any more. */
bool isRemoved(const QFile &file)
{
    struct stat status = {};
    return ::fstat(file.handle(), &status) == 0 && status.st_nlink == 0;
}

} // namespace

FileLogging::FileLogging(QObject *parent)
    : QObject(parent)
    , file(new LockedFile(this))
{
}

bool FileLogging::open(const QString &path, QString *error)
{
    const QMutexLocker locker(&mutex);
    file->close();
    file->setFileName(path);
    if (isPipe(path)) {
        *error = notRegularFileError(path);
        return false;
    }
    if (!openForAppending()) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(path, file->errorString());
        return false;
    }
    return true;
}

void FileLogging::reopen()
{
    const QMutexLocker locker(&mutex);
    file->close();
    [[maybe_unused]] const bool opened = openForAppending();
}

void FileLogging::write(int level, const QString &text)
{
    if (!file->isOpen()) {
        return;
    }
    lockCurrentFile();
    QTextStream stream(file);
    stream << formatLine(level, text) << '\n';
    stream.flush();
    file->flush();
    file->unlock();
}

bool FileLogging::openForAppending()
{
    // Opening a pipe blocks until there is a reader, and writing a line blocks while the pipe is full.
    return !isPipe(file->fileName()) && file->open(QIODevice::WriteOnly | QIODevice::Append);
}

/** Locks the file that lines go to now: a new one if the old one is full, or if another process has rotated it. */
void FileLogging::lockCurrentFile()
{
    for (int count = 0; count < kMaxSwitches; ++count) {
        file->lockForWriting();
        if (!isFull()) {
            return;
        }
        bool isSwitched = false;
        if (isAt(*file, QFile::encodeName(file->fileName()))) {
            isSwitched = rotate();
        } else if (isAt(*file, oldPath(*file)) || isRemoved(*file)) {
            isSwitched = file->switchToNewFile();
        }
        // Somebody else who moves the file away tells us with a signal when to begin a new one. If the directory cannot
        // be written, a file that is too large is better than no log.
        if (!isSwitched) {
            return;
        }
    }
    file->lockForWriting();
}

bool FileLogging::isFull() const
{
    struct stat status = {};
    return ::fstat(file->handle(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= maxBytes;
}

/** Called with the lock, so one process rotates. The others find out when they get the lock of the old file. */
bool FileLogging::rotate()
{
    const QByteArray path = QFile::encodeName(file->fileName());
    const QByteArray old = oldPath(*file);
    ::fchmod(file->handle(), 0600); // a log that somebody else has made may be open to all
    if (::rename(path.constData(), old.constData()) != 0) {
        return false;
    }
    if (file->switchToNewFile()) {
        return true;
    }
    ::rename(old.constData(), path.constData());
    return false;
}
