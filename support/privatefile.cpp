// SPDX-License-Identifier: MIT
#include "support/privatefile.h"

#include <QFile>
#include <QSaveFile>

using namespace Qt::StringLiterals;

bool writePrivateFile(const QString &path, const QByteArray &content, QString *error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(path, file.errorString());
        return false;
    }
    if (!file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        *error = u"Failed to set permissions on the file \"%1\": %2"_s.arg(path, file.errorString());
        return false;
    }
    // Flush first: on a full disk commit() alone would put an empty file in place.
    if (file.write(content) != content.size() || !file.flush() || !file.commit()) {
        *error = u"Failed to write to the file \"%1\": %2"_s.arg(path, file.errorString());
        return false;
    }
    return true;
}
