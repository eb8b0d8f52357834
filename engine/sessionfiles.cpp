// SPDX-License-Identifier: MIT
#include "engine/sessionfiles.h"

#include "support/filereader.h"

#include <QFile>
#include <QTextStream>

#include <algorithm>
#include <array>
#include <cerrno>

using namespace Qt::StringLiterals;

namespace {

/** Far more than a request can bring. A file with an endless word must not fill the memory. */
constexpr qint64 kMaxFileBytes = 1024 * 1024;

QString fileError(const char *pattern, const QFile &file)
{
    return QString::fromLatin1(pattern).arg(file.fileName(), file.errorString());
}

template <typename Value>
bool writeValue(const QString &path, const Value &value, QString *error)
{
    QFile file(path);
    if (isSpecialFile(path)) {
        *error = notRegularFileError(path);
        return false;
    }
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        *error = fileError("Failed to open the file \"%1\": %2", file);
        return false;
    }
    if (!file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        *error = fileError("Failed to set permissions on the file \"%1\": %2", file);
        return false;
    }
    QTextStream stream(&file);
    stream << value;
    stream.flush();
    if (stream.status() != QTextStream::Ok || !file.flush()) {
        *error = fileError("Failed to write to the file \"%1\": %2", file);
        return false;
    }
    return true;
}

void noteTransient(const QFile &file, bool *isTransientError)
{
    if (isTransientError && isTransient(file.errorString())) {
        *isTransientError = true;
    }
}

template <typename Value>
bool readValue(const QString &path, Value *value, QString *error, bool *isTransientError)
{
    QFile file(path);
    if (isSpecialFile(path)) {
        *error = notRegularFileError(path);
        return false;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        *error = fileError("Failed to open the file \"%1\": %2", file);
        noteTransient(file, isTransientError);
        return false;
    }
    QTextStream stream(file.read(kMaxFileBytes));
    Value read{};
    stream >> read;
    if (stream.status() != QTextStream::Ok) {
        *error = fileError("Failed to read from the file \"%1\": %2", file);
        noteTransient(file, isTransientError);
        return false;
    }
    *value = std::move(read);
    return true;
}

} // namespace

bool writeNumberFile(const QString &path, qint64 number, QString *error)
{
    return writeValue(path, number, error);
}

bool writeTextFile(const QString &path, const QString &text, QString *error)
{
    return writeValue(path, text, error);
}

bool readDisplayFile(const QString &path, quint16 *value, QString *error, bool *isTransientError)
{
    return readValue(path, value, error, isTransientError);
}

bool readNumberFile(const QString &path, qint32 *value, QString *error, bool *isTransientError)
{
    return readValue(path, value, error, isTransientError);
}

bool readWordFile(const QString &path, QString *value, QString *error, bool *isTransientError)
{
    return readValue(path, value, error, isTransientError);
}

bool isTransient(const QString &reason)
{
    // Compare texts, because QFile does not keep the error number.
    constexpr std::array kNumbers = {EMFILE, ENFILE, ENOMEM, EIO};
    return std::any_of(kNumbers.begin(), kNumbers.end(),
                       [&reason](int number) { return reason == qt_error_string(number); });
}
