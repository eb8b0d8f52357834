// SPDX-License-Identifier: MIT
#include "base/logging.h"
#include "base/strangerlines.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestStrangerLines : public QObject
{
    Q_OBJECT

private slots:
    void twentyOfAKindAreWritten();
    void kindsAreCountedApart();
    void countIsToldWithoutArguments();
    void nothingIsToldAboutKindsThatWereWrittenWhole();
    void nextMinuteStartsFromZero();
    void otherLinesAreAlwaysWritten();
    void lineAboveTheThresholdIsNotCounted();
    void countsAreNotToldAboveTheThreshold();
};

namespace {

constexpr int kMax = StrangerLines::kMaxPerMinute;

int written(StrangerLines *lines, const QString &kind, int count)
{
    int all = 0;
    for (int number = 0; number < count; ++number) {
        all += lines->add(kind) ? 1 : 0;
    }
    return all;
}

} // namespace

void TestStrangerLines::twentyOfAKindAreWritten()
{
    StrangerLines lines;
    QCOMPARE(written(&lines, u"kind"_s, 20), 20);
    QVERIFY(!lines.add(u"kind"_s));
    QCOMPARE(written(&lines, u"kind"_s, 1000), 0);
    QCOMPARE(lines.endMinute(), QStringList{u"1001 more in the last minute: kind"_s});
}

void TestStrangerLines::kindsAreCountedApart()
{
    StrangerLines lines;
    QCOMPARE(written(&lines, u"b"_s, kMax + 2), kMax);
    QCOMPARE(written(&lines, u"a"_s, kMax + 1), kMax);
    QCOMPARE(lines.endMinute(), (QStringList{u"1 more in the last minute: a"_s, u"2 more in the last minute: b"_s}));
}

void TestStrangerLines::countIsToldWithoutArguments()
{
    StrangerLines lines;
    QCOMPARE(written(&lines, u"client \"%1\" port \"%12\": 100 %"_s, kMax + 1), kMax);
    QCOMPARE(lines.endMinute(), QStringList{u"1 more in the last minute: client \"...\" port \"...\": 100 %"_s});
}

void TestStrangerLines::nothingIsToldAboutKindsThatWereWrittenWhole()
{
    StrangerLines lines;
    QCOMPARE(lines.endMinute(), QStringList());
    QCOMPARE(written(&lines, u"kind"_s, kMax), kMax);
    QCOMPARE(lines.endMinute(), QStringList());
}

void TestStrangerLines::nextMinuteStartsFromZero()
{
    StrangerLines lines;
    QCOMPARE(written(&lines, u"kind"_s, kMax + 5), kMax);
    QCOMPARE(lines.endMinute().size(), 1);
    QCOMPARE(written(&lines, u"kind"_s, kMax + 1), kMax);
    QCOMPARE(lines.endMinute(), QStringList{u"1 more in the last minute: kind"_s});
    QCOMPARE(lines.endMinute(), QStringList());
}

void TestStrangerLines::otherLinesAreAlwaysWritten()
{
    CollectingLogger logger;
    for (int number = 0; number < 3 * kMax; ++number) {
        logMessage(LogWarning, u"ours"_s);
        logStrangerMessage(LogWarning, u"theirs: %1"_s, QString::number(number));
    }
    const QStringList lines = logger.takeLines();
    QCOMPARE(lines.count(u"Warning: ours"_s), 3 * kMax);
    QCOMPARE(lines.size(), 4 * kMax);
    QCOMPARE(lines.last(), u"Warning: ours"_s);
    QVERIFY(lines.contains(u"Warning: theirs: 19"_s));
    logger.tellStrangerLines();
    QCOMPARE(logger.takeLines(), QStringList{u"Warning: 40 more in the last minute: theirs: ..."_s});
}

void TestStrangerLines::lineAboveTheThresholdIsNotCounted()
{
    CollectingLogger logger;
    logger.setLevel(LogWarning);
    for (int number = 0; number < 2 * kMax; ++number) {
        logStrangerMessage(LogInfo, u"theirs"_s);
    }
    logger.tellStrangerLines();
    QCOMPARE(logger.takeLines(), QStringList());
    logStrangerMessage(LogWarning, u"theirs"_s);
    QCOMPARE(logger.takeLines(), QStringList{u"Warning: theirs"_s});
}

void TestStrangerLines::countsAreNotToldAboveTheThreshold()
{
    CollectingLogger logger;
    logger.setLevel(LogCritical);
    for (int number = 0; number < 2 * kMax; ++number) {
        logStrangerMessage(LogCritical, u"theirs"_s);
    }
    QCOMPARE(logger.takeLines().size(), kMax);
    logger.tellStrangerLines();
    QCOMPARE(logger.takeLines(), QStringList());
}

ZARVO_TEST(TestStrangerLines)

#include "tst_strangerlines.moc"
