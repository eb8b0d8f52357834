// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/**
 * A folder of shell scripts that is the whole search path while the object lives, so that a program that is not
 * in it cannot be found at all. Made on the main thread before other threads run.
 */
class FakePrograms final
{
public:
    FakePrograms()
        : searchPath(qgetenv("PATH"))
    {
        qputenv("PATH", QFile::encodeName(folder.path()));
    }
    ~FakePrograms() { qputenv("PATH", searchPath); }
    FakePrograms(const FakePrograms &) = delete;
    FakePrograms &operator=(const FakePrograms &) = delete;

    /** Adds a program or replaces it. The script finds the system's programs and writes to no terminal. */
    void add(const QString &name, const QString &script) const
    {
        const QString file = folder.filePath(name);
        putFile(file, "#!/bin/sh\nexec >/dev/null\nPATH=/usr/bin:/bin\n" + script.toUtf8() + '\n');
        if (::chmod(QFile::encodeName(file).constData(), 0700) != 0) {
            qFatal("Failed to make %s a program", qPrintable(file));
        }
    }
    void remove(const QString &name) const { QFile::remove(folder.filePath(name)); }

    /** Where the programs are, and files that they write beside themselves. */
    [[nodiscard]] QString filePath(const QString &name) const { return folder.filePath(name); }

private:
    QTemporaryDir folder;
    const QByteArray searchPath;
};
