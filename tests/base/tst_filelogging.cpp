// SPDX-License-Identifier: MIT
#include "base/filelogging.h"
#include "tests/helpers/files.h"
#include "tests/helpers/otherprocess.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

class TestFileLogging : public QObject
{
    Q_OBJECT

private slots:
    void eachMessageIsOneFlushedLine_data();
    void eachMessageIsOneFlushedLine();
    void messageAboveTheThresholdIsNotWritten();
    void openAppendsToTheFile();
    void failedOpenIsReportedAndLogsNothing();
    void pipeIsRefusedWithoutWaiting();
    void openChangesTheFile();
    void reopenAfterARenameStartsANewFile();
    void failedReopenLosesLinesUntilASuccessfulOne();
    void linesOfSeveralThreadsStayWholeDuringReopens();
    void lineWaitsForTheLockOfAnotherProcess();
    void lockIsReleasedAfterEveryLine();
};

namespace {

/** How long to wait to be sure that something does not happen. No success depends on it. */
constexpr int kWrongEventMs = 300;

/** The lines of a log without their times. A line of another form becomes "?". */
QStringList linesOf(const QString &path)
{
    static const QRegularExpression form(
        u"\\A(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun) [1-9][0-9]? [0-9]{2}:[0-9]{2}:[0-9]{2}: (.*)\\z"_s);
    QStringList lines = QString::fromUtf8(contentOf(path)).split(u'\n');
    if (lines.takeLast() != QString()) {
        return {u"no line feed at the end"_s};
    }
    for (QString &line : lines) {
        const QRegularExpressionMatch match = form.match(line);
        line = match.hasMatch() ? match.captured(1) : u"?"_s;
    }
    return lines;
}

} // namespace

void TestFileLogging::eachMessageIsOneFlushedLine_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("end");
    QTest::newRow("plain") << u"hello"_s << ": Info: hello\n"_ba;
    QTest::newRow("empty") << u""_s << ": Info: \n"_ba;
    QTest::newRow("line breaks inside") << u"a\nb"_s << ": Info: a\nb\n"_ba;
    QTest::newRow("UTF-8") << u"ä€\U0001F600"_s << QByteArray(": Info: \xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\n");
    QTest::newRow("longer than any buffer")
        << QString(300000, u'x') << QByteArray(": Info: " + QByteArray(300000, 'x') + '\n');
}

void TestFileLogging::eachMessageIsOneFlushedLine()
{
    QFETCH(const QString, text);
    QFETCH(const QByteArray, end);
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"log"_s);
    FileLogging logger;
    QString error = u"untouched"_s;
    QVERIFY(logger.open(path, &error));
    QCOMPARE(error, u"untouched"_s);
    QCOMPARE(contentOf(path), ""_ba);
    logger.log(LogInfo, text);
    QVERIFY(contentOf(path).endsWith(end));
    const qsizetype size = contentOf(path).size();
    QVERIFY(size < end.size() + 20); // no more than the time
    logger.log(LogInfo, text);
    QCOMPARE(contentOf(path).count(end), 2);
}

void TestFileLogging::messageAboveTheThresholdIsNotWritten()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"log"_s);
    FileLogging logger;
    QString error;
    QVERIFY(logger.open(path, &error));
    logger.log(LogDebug1, u"no"_s);
    logger.log(LogInfo, u"yes"_s);
    QCOMPARE(linesOf(path), QStringList{u"Info: yes"_s});
    logger.setLevel(LogDebug3);
    logger.log(LogDebug3, u"now"_s);
    QCOMPARE(linesOf(path), (QStringList{u"Info: yes"_s, u"Debug3: now"_s}));
}

void TestFileLogging::openAppendsToTheFile()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"log"_s);
    putFile(path, "earlier\n");
    FileLogging logger;
    QString error;
    QVERIFY(logger.open(path, &error));
    logger.log(LogInfo, u"later"_s);
    const QByteArray content = contentOf(path);
    QVERIFY(content.startsWith("earlier\n"));
    QVERIFY(content.endsWith(": Info: later\n"));
}

void TestFileLogging::failedOpenIsReportedAndLogsNothing()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"missing/log"_s);
    FileLogging logger;
    QString error;
    QVERIFY(!logger.open(path, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": No such file or directory"_s.arg(path));
    logger.log(LogCritical, u"nowhere"_s);
    QCOMPARE(QDir(dir.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
}

void TestFileLogging::pipeIsRefusedWithoutWaiting()
{
    // The pipe has no reader, so opening it would block for ever, and then every thread that logs.
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"log"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    FileLogging logger;
    QString error;
    QVERIFY(!logger.open(path, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": Not a regular file"_s.arg(path));
    logger.reopen();
    logger.log(LogInfo, u"nowhere"_s);
    QVERIFY(QFile::remove(path));
    logger.reopen();
    logger.log(LogInfo, u"here"_s);
    QCOMPARE(linesOf(path), QStringList{u"Info: here"_s});
}

void TestFileLogging::openChangesTheFile()
{
    const QTemporaryDir dir;
    FileLogging logger;
    QString error;
    QVERIFY(logger.open(dir.filePath(u"one"_s), &error));
    logger.log(LogInfo, u"first"_s);
    QVERIFY(logger.open(dir.filePath(u"two"_s), &error));
    logger.log(LogInfo, u"second"_s);
    QCOMPARE(linesOf(dir.filePath(u"one"_s)), QStringList{u"Info: first"_s});
    QCOMPARE(linesOf(dir.filePath(u"two"_s)), QStringList{u"Info: second"_s});
}

void TestFileLogging::reopenAfterARenameStartsANewFile()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"log"_s);
    const QString moved = dir.filePath(u"log.1"_s);
    FileLogging logger;
    QString error;
    QVERIFY(logger.open(path, &error));
    logger.log(LogInfo, u"before"_s);
    QVERIFY(QFile::rename(path, moved));
    logger.log(LogInfo, u"between"_s);
    QVERIFY(!QFile::exists(path));
    logger.reopen();
    logger.log(LogInfo, u"after"_s);
    QCOMPARE(linesOf(moved), (QStringList{u"Info: before"_s, u"Info: between"_s}));
    QCOMPARE(linesOf(path), QStringList{u"Info: after"_s});

    logger.reopen(); // nothing was moved, so it is the same file again
    logger.log(LogInfo, u"again"_s);
    QCOMPARE(linesOf(path), (QStringList{u"Info: after"_s, u"Info: again"_s}));
}

void TestFileLogging::failedReopenLosesLinesUntilASuccessfulOne()
{
    const QTemporaryDir dir;
    QVERIFY(QDir(dir.path()).mkdir(u"logs"_s));
    const QString path = dir.filePath(u"logs/log"_s);
    const QString away = dir.filePath(u"away"_s);
    FileLogging logger;
    QString error;
    QVERIFY(logger.open(path, &error));
    logger.log(LogInfo, u"before"_s);

    QVERIFY(QDir().rename(dir.filePath(u"logs"_s), away)); // because root could write into a read-only directory
    logger.reopen();
    logger.log(LogInfo, u"lost"_s);
    QCOMPARE(linesOf(away + u"/log"_s), QStringList{u"Info: before"_s});
    logger.reopen();
    logger.log(LogInfo, u"lost too"_s);
    QVERIFY(!QFile::exists(path));

    QVERIFY(QDir().rename(away, dir.filePath(u"logs"_s)));
    logger.log(LogInfo, u"still lost"_s);
    logger.reopen();
    logger.log(LogInfo, u"after"_s);
    QCOMPARE(linesOf(path), (QStringList{u"Info: before"_s, u"Info: after"_s}));
}

void TestFileLogging::linesOfSeveralThreadsStayWholeDuringReopens()
{
    constexpr int kThreads = 6;
    constexpr int kMessages = 300;
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"log"_s);
    FileLogging logger;
    QString error;
    QVERIFY(logger.open(path, &error));

    std::atomic<int> running = kThreads;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
        const QString text(200 + i, QChar(u'a' + i)); // each with a length and a letter of its own
        threads.emplace_back(QThread::create([&logger, &running, text] {
            for (int message = 0; message < kMessages; ++message) {
                logger.log(LogInfo, text);
            }
            --running;
        }));
        threads.back()->start();
    }
    while (running > 0) {
        logger.reopen();
    }
    for (const auto &thread : threads) {
        QVERIFY(thread->wait(60000));
    }
    QMap<QString, int> counts;
    for (const QString &line : linesOf(path)) {
        ++counts[line];
    }
    QMap<QString, int> expected;
    for (int i = 0; i < kThreads; ++i) {
        expected.insert(u"Info: "_s + QString(200 + i, QChar(u'a' + i)), kMessages);
    }
    QCOMPARE(counts, expected);
}

void TestFileLogging::lineWaitsForTheLockOfAnotherProcess()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"log"_s);
    FileLogging logger;
    QString error;
    QVERIFY(logger.open(path, &error));
    OtherProcess other({u"lock"_s, path});
    QCOMPARE(other.nextLine(), "locked"_ba);

    const std::unique_ptr<QThread> thread(QThread::create([&logger] { logger.log(LogInfo, u"ours"_s); }));
    thread->start();
    QVERIFY(!thread->wait(kWrongEventMs));
    other.send("theirs\n");
    QVERIFY(other.finish());
    QVERIFY(thread->wait(30000));
    const QByteArray content = contentOf(path);
    QVERIFY2(content.startsWith("theirs\n"), content.constData());
    QVERIFY2(content.endsWith(": Info: ours\n"), content.constData());
}

void TestFileLogging::lockIsReleasedAfterEveryLine()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"log"_s);
    FileLogging logger;
    QString error;
    QVERIFY(logger.open(path, &error));
    logger.log(LogInfo, u"ours"_s);
    OtherProcess other({u"lock"_s, path});
    QCOMPARE(other.nextLine(), "locked"_ba);
    QVERIFY(other.finish());
}

ZARVO_TEST(TestFileLogging)

#include "tst_filelogging.moc"
