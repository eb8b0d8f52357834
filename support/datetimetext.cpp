// SPDX-License-Identifier: MIT
#include "support/datetimetext.h"

#include <QLocale>

using namespace Qt::StringLiterals;

namespace {

constexpr auto kPattern = "yyyy-MM-ddThh:mm:ss"_L1;

/** Reads an unsigned decimal number; -1 if there is anything but ASCII digits. */
int numberOf(QStringView digits)
{
    int number = 0;
    for (const QChar digit : digits) {
        if (digit < u'0' || digit > u'9') {
            return -1;
        }
        number = number * 10 + (digit.unicode() - u'0');
    }
    return number;
}

/**
 * Reads the form that dateTimeToText() writes. Returns an invalid time for all other text, even if Qt's parser would
 * accept it: the caller then asks that parser, which takes fifty times as long.
 */
QDateTime plainTimeFromText(QStringView text)
{
    if (text.size() != 19 || text[4] != u'-' || text[7] != u'-' || text[10] != u'T' || text[13] != u':' ||
        text[16] != u':') {
        return {};
    }
    const int year = numberOf(text.sliced(0, 4)); // negative: not a number
    const QDate date(year, numberOf(text.sliced(5, 2)), numberOf(text.sliced(8, 2)));
    const QTime time(numberOf(text.sliced(11, 2)), numberOf(text.sliced(14, 2)), numberOf(text.sliced(17, 2)));
    if (year < 0 || !date.isValid() || !time.isValid()) {
        return {};
    }
    const QDateTime both(date, time);
    // When summer time begins an hour is skipped, and Qt moves a time within that hour.
    return both.date() == date && both.time() == time ? both : QDateTime();
}

} // namespace

QString dateTimeToText(const QDateTime &time)
{
    return time.toLocalTime().toString(kPattern);
}

QDateTime dateTimeFromText(const QString &text)
{
    if (text.isEmpty()) {
        return {};
    }
    if (const QDateTime plain = plainTimeFromText(text); plain.isValid()) {
        return plain;
    }
    QDateTime time = QLocale::c().toDateTime(text, kPattern);
    if (!time.isValid()) {
        return {};
    }
    time.setTimeSpec(Qt::LocalTime);
    return time;
}
