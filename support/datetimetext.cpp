// SPDX-License-Identifier: MIT
#include "support/datetimetext.h"

#include <QLocale>

using namespace Qt::StringLiterals;

namespace {

constexpr auto kPattern = "yyyy-MM-ddThh:mm:ss"_L1;

} // namespace

QString dateTimeToText(const QDateTime &time)
{
    return time.toLocalTime().toString(kPattern);
}

QDateTime dateTimeFromText(const QString &text)
{
    QDateTime time = QLocale::c().toDateTime(text, kPattern);
    if (!time.isValid()) {
        return {};
    }
    time.setTimeSpec(Qt::LocalTime);
    return time;
}
