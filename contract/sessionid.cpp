// SPDX-License-Identifier: MIT
#include "contract/sessionid.h"

#include "support/randomdata.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

bool isValidSessionId(const QString &id)
{
    static const QRegularExpression pattern(u"\\A[a-fA-F0-9]{32}\\z"_s);
    return pattern.match(id).hasMatch();
}

QString sessionDirectory(const QString &root, const QString &id)
{
    return QDir(root).filePath(kSessionDirectoryPrefix + id);
}

QString sessionIdFromPath(const QString &path)
{
    const QString name = QFileInfo(path).baseName();
    if (!name.startsWith(kSessionDirectoryPrefix)) {
        return {};
    }
    const QString id = name.sliced(kSessionDirectoryPrefix.size());
    return isValidSessionId(id) ? id : QString();
}

bool newSessionId(QString *id, QString *error)
{
    QString ignored;
    return randomHex(id, error ? error : &ignored);
}
