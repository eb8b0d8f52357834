// SPDX-License-Identifier: MIT
#include "base/strangerlines.h"

#include <QRegularExpression>

#include <utility>

using namespace Qt::StringLiterals;

bool StrangerLines::add(const QString &kind)
{
    return ++counts[kind] <= kMaxPerMinute;
}

QStringList StrangerLines::endMinute()
{
    static const QRegularExpression argument(u"%[0-9]+"_s);
    const QMap<QString, qint64> ended = std::exchange(counts, {});
    QStringList lines;
    for (auto entry = ended.cbegin(); entry != ended.cend(); ++entry) {
        const qint64 more = entry.value() - kMaxPerMinute;
        if (more > 0) {
            const QString text = QString(entry.key()).replace(argument, u"..."_s);
            lines += u"%1 more in the last minute: %2"_s.arg(QString::number(more), text);
        }
    }
    return lines;
}
