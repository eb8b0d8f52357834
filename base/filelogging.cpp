// SPDX-License-Identifier: MIT
#include "base/filelogging.h"

#include "base/lockedfile.h"
#include "support/filereader.h"

#include <QMutexLocker>
#include <QTextStream>

using namespace Qt::StringLiterals;

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
    file->lockForWriting();
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
