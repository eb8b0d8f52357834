// SPDX-License-Identifier: MIT
#include "engine/sessionfiles.h"

#include "support/filereader.h"

#include <QFile>
#include <QTextStream>

using namespace Qt::StringLiterals;

namespace {

QString fileError(const char *pattern, const QFile &file)
{
    return QString::fromLatin1(pattern).arg(file.fileName(), file.errorString());
}

/** Opening a pipe waits for whoever is at its other end, which may be nobody. */
QString notRegular(const QString &path)
{
    return QString::fromLatin1("Failed to open the file \"%1\": %2").arg(path, u"Not a regular file"_s);
}

template <typename Value>
bool writeValue(const QString &path, const Value &value, QString *error)
{
    QFile file(path);
    if (isSpecialFile(path)) {
        *error = notRegular(path);
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

template <typename Value>
bool readValue(const QString &path, Value *value, QString *error)
{
    QFile file(path);
    if (isSpecialFile(path)) {
        *error = notRegular(path);
        return false;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        *error = fileError("Failed to open the file \"%1\": %2", file);
        return false;
    }
    QTextStream stream(&file);
    Value read{};
    stream >> read;
    if (stream.status() != QTextStream::Ok) {
        *error = fileError("Failed to read from the file \"%1\": %2", file);
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

bool readDisplayFile(const QString &path, quint16 *value, QString *error)
{
    return readValue(path, value, error);
}

bool readNumberFile(const QString &path, qint32 *value, QString *error)
{
    return readValue(path, value, error);
}

bool readWordFile(const QString &path, QString *value, QString *error)
{
    return readValue(path, value, error);
}
