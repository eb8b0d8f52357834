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
 * A folder of shell scripts that is the whole search path while the object lives, so that only its programs are found.
 * Created on the main thread before other threads run.
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
    Q_DISABLE_COPY_MOVE(FakePrograms)

    /** Adds or replaces a program. The script itself finds the system's programs; its output is dropped. */
    void add(const QString &name, const QString &script) const
    {
        const QString file = folder.filePath(name);
        putFile(file, "#!/bin/sh\nexec >/dev/null\nPATH=/usr/bin:/bin\n" + script.toUtf8() + '\n');
        if (::chmod(QFile::encodeName(file).constData(), 0700) != 0) {
            qFatal("Failed to make %s a program", qPrintable(file));
        }
    }
    void remove(const QString &name) const { QFile::remove(folder.filePath(name)); }

    /** The path of a program, or of a file that a program wrote beside itself. */
    [[nodiscard]] QString filePath(const QString &name) const { return folder.filePath(name); }

private:
    QTemporaryDir folder;
    const QByteArray searchPath;
};
