// SPDX-License-Identifier: MIT
#include "live/sessiondirectoryremoval.h"

#include <QDir>
#include <QFileInfo>

using namespace Qt::StringLiterals;

bool removeSessionDirectory(const QString &path, QString &error)
{
    if (QFileInfo(path).isSymLink()) {
        error = u"Failed to remove the directory \"%1\""_s.arg(path);
        return false; // the server did not create the target, which may contain anything
    }
    // For QDir, sockets and dangling symlinks are system files. They must go, too, or rmdir() would fail.
    const QDir directory(path, QString(), QDir::Unsorted, QDir::Files | QDir::Hidden | QDir::System);
    const QStringList names = directory.entryList();
    for (const QString &name : names) {
        const QString file = directory.filePath(name);
        if (!QFile::remove(file)) {
            error = u"Failed to remove the file \"%1\""_s.arg(file);
            return false;
        }
    }
    if (!QDir().rmdir(path)) {
        error = u"Failed to remove the directory \"%1\""_s.arg(path);
        return false;
    }
    return true;
}
