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
    return QDir(root).filePath(u"C-%1"_s.arg(id));
}

QString sessionIdFromPath(const QString &path)
{
    static const QRegularExpression pattern(u"\\AC-([a-fA-F0-9]{32})\\z"_s);
    const QRegularExpressionMatch match = pattern.match(QFileInfo(path).baseName());
    return match.hasMatch() ? match.captured(1) : QString();
}

bool newSessionId(QString *id)
{
    QString error;
    return randomHex(id, &error);
}
