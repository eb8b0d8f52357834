// SPDX-License-Identifier: MIT
#include "support/pathtemplate.h"

#include <QDir>
#include <QHostInfo>
#include <QMap>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

QMap<QString, QString> placeholderValues()
{
    return {
        {u"@HOME@"_s, QDir::homePath()},
        {u"@TEMP@"_s, QDir::tempPath()},
        {u"@USER@"_s, qEnvironmentVariable("USER")},
        {u"@HOST@"_s, QHostInfo::localHostName()},
    };
}

} // namespace

QString expandPathTemplate(const QString &input)
{
    const QMap<QString, QString> values = placeholderValues();
    const QRegularExpression placeholder(u"("_s + values.keys().join(u'|') + u")"_s);

    QString output;
    qsizetype position = 0;
    for (const QRegularExpressionMatch &match : placeholder.globalMatch(input)) {
        output += QStringView(input).sliced(position, match.capturedStart() - position);
        output += values.value(match.captured(1));
        position = match.capturedEnd();
    }
    output += QStringView(input).sliced(position);
    return output;
}
