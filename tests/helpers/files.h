// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QTest>

#include <sys/stat.h>

/*
 * Small file helpers of the tests.
 */

/** Writes a file and puts it in place in one step, so that a reader never sees half of it. */
inline void putFile(const QString &path, const QByteArray &content)
{
    const QString temporary = path + QStringLiteral(".new");
    QFile file(temporary);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() || !file.flush() ||
        ::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path).constData()) != 0) {
        qFatal("Failed to write %s", qPrintable(path));
    }
}

/** The content of a file; a null array if it cannot be read. */
[[nodiscard]] inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    const QByteArray content = file.readAll();
    return content.isNull() ? QByteArray("") : content;
}

/** The permission bits of a file; -1 if there is none. */
[[nodiscard]] inline int modeOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
}

/** Waits until a file exists. It is whole then if it was put in place in one step. */
[[nodiscard]] inline bool waitForFile(const QString &path)
{
    return QTest::qWaitFor([&path] { return QFile::exists(path); }, 20000);
}
