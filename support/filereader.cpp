// SPDX-License-Identifier: MIT
#include "support/filereader.h"

#include <QFile>

#include <cerrno>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

/**
 * Type and permissions of the file at @p path; 0 if nothing is there. Callers use one result for several questions,
 * because the file may be gone at the second call.
 */
mode_t modeOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode : 0;
}

} // namespace

bool readFile(const QString &path, int maxSize, QByteArray *data, QString *error)
{
    return readFileIfThere(path, maxSize, data, error) == FileReading::Done;
}

FileReading readFileIfThere(const QString &path, int maxSize, QByteArray *data, QString *error)
{
    QFile file(path);
    // Unbuffered, so that a device such as /dev/urandom has to deliver only the bytes that are wanted.
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(file.fileName(), file.errorString());
        // QFile reports the reason as a text only.
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
    const mode_t mode = modeOf(path);
    return mode != 0 && !S_ISREG(mode) && !S_ISDIR(mode);
}

bool isPipe(const QString &path)
{
    return S_ISFIFO(modeOf(path));
}

QString notRegularFileError(const QString &path)
{
    return u"Failed to open the file \"%1\": %2"_s.arg(path, u"Not a regular file"_s);
}
