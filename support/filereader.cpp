// SPDX-License-Identifier: MIT
#include "support/filereader.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

bool readFile(const QString &path, int maxSize, QByteArray *data, QString *error)
{
    return readFileIfThere(path, maxSize, data, error) == FileReading::Done;
}

FileReading readFileIfThere(const QString &path, int maxSize, QByteArray *data, QString *error)
{
    QFile file(path);
    // Unbuffered: a device such as the random generator is asked for the wanted bytes and no more.
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(file.fileName(), file.errorString());
        // QFile tells the reason as a text only.
        return file.errorString() == qt_error_string(ENOENT) ? FileReading::Missing : FileReading::Failed;
    }
    QByteArray bytes = file.read(maxSize);
    if (file.error() != QFileDevice::NoError) {
        *error = u"Failed to read from the file \"%1\": %2"_s.arg(file.fileName(), file.errorString());
        return FileReading::Failed;
    }
    *data = std::move(bytes);
    return FileReading::Done;
}

bool isSpecialFile(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() && !info.isFile() && !info.isDir();
}

bool isPipe(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && S_ISFIFO(status.st_mode);
}
