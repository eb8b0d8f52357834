// SPDX-License-Identifier: MIT
#include "support/datetimetext.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/testmain.h"

#include <QLocale>
#include <QTest>

#include <ctime>
#include <memory>

using namespace Qt::StringLiterals;

class TestDateTimeText : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void timeBecomesLocalTextToTheSecond_data();
    void timeBecomesLocalTextToTheSecond();
    void textBecomesLocalTime();
    void textInAnotherFormGivesANullTime_data();
    void textInAnotherFormGivesANullTime();
    void timeIsTheSameAfterARoundTrip();
    void everyTextIsReadAsQtReadsIt_data();
    void everyTextIsReadAsQtReadsIt();

private:
    std::unique_ptr<EnvironmentVariable> zone;
};

void TestDateTimeText::initTestCase()
{
    zone = std::make_unique<EnvironmentVariable>("TZ", "XYZ-3"); // three hours before UTC, all year
    ::tzset();
}

void TestDateTimeText::cleanupTestCase()
{
    zone.reset();
    ::tzset();
}

void TestDateTimeText::timeBecomesLocalTextToTheSecond_data()
{
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<QString>("text");
    const QDate date(2024, 2, 29);
    QTest::newRow("null") << QDateTime() << QString();
    QTest::newRow("local") << QDateTime(date, QTime(3, 4, 5)) << u"2024-02-29T03:04:05"_s;
    QTest::newRow("fraction is cut off") << QDateTime(date, QTime(3, 4, 5, 999)) << u"2024-02-29T03:04:05"_s;
    QTest::newRow("UTC") << QDateTime(date, QTime(22, 0), Qt::UTC) << u"2024-03-01T01:00:00"_s;
    QTest::newRow("other offset") << QDateTime(date, QTime(12, 0), Qt::OffsetFromUTC, -3600)
                                  << u"2024-02-29T16:00:00"_s;
    QTest::newRow("afternoon") << QDateTime(date, QTime(23, 59, 59)) << u"2024-02-29T23:59:59"_s;
    QTest::newRow("midnight") << QDateTime(date, QTime(0, 0)) << u"2024-02-29T00:00:00"_s;
    QTest::newRow("epoch") << QDateTime::fromSecsSinceEpoch(0) << u"1970-01-01T03:00:00"_s;
}

void TestDateTimeText::timeBecomesLocalTextToTheSecond()
{
    QFETCH(const QDateTime, time);
    QFETCH(const QString, text);
    QCOMPARE(dateTimeToText(time), text);
}

void TestDateTimeText::textBecomesLocalTime()
{
    const QDateTime time = dateTimeFromText(u"2024-02-29T23:04:05"_s);
    QVERIFY(time.isValid());
    QCOMPARE(time.timeSpec(), Qt::LocalTime);
    QCOMPARE(time.date(), QDate(2024, 2, 29));
    QCOMPARE(time.time(), QTime(23, 4, 5));
    QCOMPARE(time.toUTC().time(), QTime(20, 4, 5));
}

void TestDateTimeText::textInAnotherFormGivesANullTime_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text : {"",
                             " ",
                             "2024",
                             "2024-02-29",
                             "2024-02-29T03:04",
                             "2024-02-29 03:04:05",
                             "2024-02-29T03:04:05Z",
                             "2024-02-29T03:04:05+01:00",
                             "2024-02-29T03:04:05.000",
                             "2024-02-29T03:04:05\n",
                             " 2024-02-29T03:04:05",
                             "2024-02-29T03:04:05 ",
                             "2024-02-30T03:04:05",
                             "2023-02-29T03:04:05",
                             "2024-13-01T03:04:05",
                             "2024-00-01T03:04:05",
                             "2024-02-29T24:00:00",
                             "2024-02-29T03:60:05",
                             "2024-02-29T03:04:60",
                             "24-02-29T03:04:05",
                             "29.02.2024 03:04:05",
                             "2024-02-29T03-04-05",
                             "null"}) {
        QTest::addRow("\"%s\"", text) << QString::fromLatin1(text);
    }
}

void TestDateTimeText::textInAnotherFormGivesANullTime()
{
    QFETCH(const QString, text);
    QVERIFY(dateTimeFromText(text).isNull());
}

void TestDateTimeText::timeIsTheSameAfterARoundTrip()
{
    const QDateTime time(QDate(1999, 12, 31), QTime(23, 59, 58));
    QCOMPARE(dateTimeFromText(dateTimeToText(time)), time);
    QVERIFY(dateTimeFromText(dateTimeToText(QDateTime())).isNull());
}

void TestDateTimeText::everyTextIsReadAsQtReadsIt_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text : {"2026-01-31T11:59:00", "2026-07-31T00:00:00", "1969-12-31T23:59:59", "0001-01-01T00:00:00",
                             "0000-01-01T00:00:00", "9999-12-31T23:59:59", "2026-03-29T01:59:59", "2026-03-29T02:00:00",
                             "2026-03-29T02:30:00", "2026-03-29T03:00:00", "2026-10-25T02:30:00", "2026-10-25T03:00:00",
                             "2026-01-31t11:59:00", "+026-01-31T11:59:00", "-026-01-31T11:59:00", "2026-+1-31T11:59:00",
                             "2026-01-31T11:59:-1", "2026/01/31T11:59:00", "2026-01-31T11:59:00 "}) {
        QTest::addRow("%s", text) << QString::fromLatin1(text);
    }
    QTest::newRow("digits of another script") << u"\u0662\u0660\u0662\u0666-01-31T11:59:00"_s;
}

void TestDateTimeText::everyTextIsReadAsQtReadsIt()
{
    QFETCH(const QString, text);
    // In this zone 2026-03-29 skips the hour from two to three, and 2026-10-25 has it twice.
    const EnvironmentVariable summer("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    ::tzset();
    QDateTime expected = QLocale::c().toDateTime(text, u"yyyy-MM-ddThh:mm:ss"_s);
    expected.setTimeSpec(Qt::LocalTime);
    const QDateTime time = dateTimeFromText(text);
    QCOMPARE(time.isValid(), expected.isValid());
    if (expected.isValid()) {
        QCOMPARE(time, expected);
        QCOMPARE(time.toMSecsSinceEpoch(), expected.toMSecsSinceEpoch());
    }
}

ZARVO_TEST(TestDateTimeText)

#include "tst_datetimetext.moc"
