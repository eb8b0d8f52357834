// SPDX-License-Identifier: MIT
#include "base/logging.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/testmain.h"

#include <QDateTime>
#include <QLocale>
#include <QTest>
#include <QThread>

#include <atomic>
#include <limits>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

class TestLogging : public QObject
{
    Q_OBJECT

private slots:
    void levelsHaveNamesInBothDirections_data();
    void levelsHaveNamesInBothDirections();
    void unknownNumberHasNoName_data();
    void unknownNumberHasNoName();
    void unknownNameMeansInfo_data();
    void unknownNameMeansInfo();
    void lineHasTimeLevelAndText_data();
    void lineHasTimeLevelAndText();
    void initialThresholdIsInfo();
    void messagesUpToTheThresholdAreWritten_data();
    void messagesUpToTheThresholdAreWritten();
    void installedLoggerGetsAllMessages();
    void installedLoggerIsUninstalledAtItsEnd();
    void writesOfSeveralThreadsNeverOverlap();
};

namespace {

/** Notices a call of write() during another one. */
class ExclusiveLogger final : public Logging
{
public:
    void write(int, const QString &) override
    {
        overlapped = overlapped || inside.exchange(true);
        QThread::yieldCurrentThread();
        ++written;
        inside = false;
    }

    std::atomic<bool> inside = false;
    std::atomic<bool> overlapped = false;
    int written = 0; ///< not atomic on purpose, because the logger's mutex has to suffice
};

QString timeText()
{
    return QLocale::c().toString(QDateTime::currentDateTime(), u"ddd d hh:mm:ss"_s);
}

} // namespace

void TestLogging::levelsHaveNamesInBothDirections_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("name");
    QTest::newRow("0") << 0 << u"Critical"_s;
    QTest::newRow("1") << 1 << u"Warning"_s;
    QTest::newRow("2") << 2 << u"Info"_s;
    QTest::newRow("3") << 3 << u"Debug1"_s;
    QTest::newRow("4") << 4 << u"Debug2"_s;
    QTest::newRow("5") << 5 << u"Debug3"_s;
}

void TestLogging::levelsHaveNamesInBothDirections()
{
    QFETCH(const int, level);
    QFETCH(const QString, name);
    QCOMPARE(Logging::levelName(level), name);
    QCOMPARE(Logging::levelFromName(name), level);
}

void TestLogging::unknownNumberHasNoName_data()
{
    QTest::addColumn<int>("level");
    QTest::newRow("one below") << -1;
    QTest::newRow("one above") << 6;
    QTest::newRow("two above") << 7;
    QTest::newRow("smallest") << std::numeric_limits<int>::min();
    QTest::newRow("largest") << std::numeric_limits<int>::max();
}

void TestLogging::unknownNumberHasNoName()
{
    QFETCH(const int, level);
    QCOMPARE(Logging::levelName(level), QString());
    QVERIFY(Logging::formatLine(level, u"text"_s).endsWith(u": : text"_s));
}

void TestLogging::unknownNameMeansInfo_data()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"", "debug1", "DEBUG3", "critical", "Debug", "Debug0", "Debug4", "Debug10", " Critical",
                             "Critical ", "Critical\n", "0", "5", "Error"}) {
        QTest::addRow("\"%s\"", name) << QString::fromLatin1(name);
    }
    QTest::newRow("null") << QString();
}

void TestLogging::unknownNameMeansInfo()
{
    QFETCH(const QString, name);
    QCOMPARE(Logging::levelFromName(name), 2);
}

void TestLogging::lineHasTimeLevelAndText_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("end");
    QTest::newRow("critical") << 0 << u"It is over"_s << u": Critical: It is over"_s;
    QTest::newRow("debug") << 5 << u"x"_s << u": Debug3: x"_s;
    QTest::newRow("no text") << 2 << u""_s << u": Info: "_s;
    QTest::newRow("line breaks stay") << 1 << u"a\nb\r\n"_s << u": Warning: a\nb\r\n"_s;
    QTest::newRow("place markers stay") << 1 << u"%1 100%2 %3"_s << u": Warning: %1 100%2 %3"_s;
    QTest::newRow("number of no level") << 7 << u"x"_s << u": : x"_s;
    QTest::newRow("not only Latin") << 1 << u"ä€\U0001F600"_s << u": Warning: ä€\U0001F600"_s;
}

void TestLogging::lineHasTimeLevelAndText()
{
    QFETCH(const int, level);
    QFETCH(const QString, text);
    QFETCH(const QString, end);
    QString line;
    QString time;
    do { // again if the second has changed in between
        time = timeText();
        line = Logging::formatLine(level, text);
    } while (time != timeText());
    QCOMPARE(line, QString(time + end));
}

void TestLogging::initialThresholdIsInfo()
{
    const ExclusiveLogger logger;
    QCOMPARE(logger.level(), 2);
}

void TestLogging::messagesUpToTheThresholdAreWritten_data()
{
    QTest::addColumn<int>("threshold");
    QTest::addColumn<QStringList>("lines");
    const QStringList all = {u"Critical: 0"_s, u"Warning: 1"_s, u"Info: 2"_s,
                             u"Debug1: 3"_s,   u"Debug2: 4"_s,  u"Debug3: 5"_s};
    for (int threshold = 0; threshold <= 5; ++threshold) {
        QTest::addRow("%d", threshold) << threshold << all.first(threshold + 1);
    }
}

void TestLogging::messagesUpToTheThresholdAreWritten()
{
    QFETCH(const int, threshold);
    CollectingLogger logger;
    logger.setLevel(threshold);
    QCOMPARE(logger.level(), threshold);
    for (int level = 0; level <= 5; ++level) {
        logger.log(level, QString::number(level));
    }
    QTEST(logger.takeLines(), "lines");
}

void TestLogging::installedLoggerGetsAllMessages()
{
    CollectingLogger first;
    QCOMPARE(Logging::instance(), &first);
    {
        CollectingLogger second;
        logMessage(LogWarning, u"one"_s);
        QCOMPARE(second.takeLines(), QStringList{u"Warning: one"_s});
    }
    QCOMPARE(first.takeLines(), QStringList());
    first.setLevel(LogInfo);
    logMessage(LogDebug1, u"two"_s);
    logMessage(LogInfo, u"three"_s);
    QCOMPARE(first.takeLines(), QStringList{u"Info: three"_s});
}

void TestLogging::installedLoggerIsUninstalledAtItsEnd()
{
    {
        ExclusiveLogger installed;
        Logging::setInstance(&installed);
        {
            const ExclusiveLogger other;
        }
        QCOMPARE(Logging::instance(), &installed);
    }
    QCOMPARE(Logging::instance(), nullptr);
}

void TestLogging::writesOfSeveralThreadsNeverOverlap()
{
    constexpr int kThreads = 8;
    constexpr int kMessages = 500;
    ExclusiveLogger logger;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back(QThread::create([&logger] {
            for (int message = 0; message < kMessages; ++message) {
                logger.log(LogInfo, u"text"_s);
                logger.log(LogDebug1, u"text"_s);
            }
        }));
        threads.back()->start();
    }
    for (const auto &thread : threads) {
        QVERIFY(thread->wait(60000));
    }
    QVERIFY(!logger.overlapped);
    QCOMPARE(logger.written, kThreads * kMessages);
}

ZARVO_TEST(TestLogging)

#include "tst_logging.moc"
