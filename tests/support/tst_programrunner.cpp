// SPDX-License-Identifier: MIT
#include "support/programrunner.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>

using namespace Qt::StringLiterals;

class TestProgramRunner : public QObject
{
    Q_OBJECT

private slots:
    void programThatEndsWithZeroSucceeds_data();
    void programThatEndsWithZeroSucceeds();
    void failureNamesTheProgramAndTheReason_data();
    void failureNamesTheProgramAndTheReason();
    void failedStartNamesTheReasonOfQProcess_data();
    void failedStartNamesTheReasonOfQProcess();
    void argumentsArePassedUnchanged();
    void standardInputIsAPipe();
    void programRunsInTheWorkingDirectory();
    void emptyWorkingDirectoryMeansTheCallers();
    void programThatRunsTooLongIsKilledAndReaped();
};

namespace {

/** For programs that should end by themselves, so that one that hangs does not block the tests. */
constexpr int kPatienceMs = 60000;

QStringList script(const QString &text)
{
    return {u"-c"_s, text};
}

} // namespace

void TestProgramRunner::programThatEndsWithZeroSucceeds_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("timeoutMs");
    QTest::newRow("silent") << u"exit 0"_s << kPatienceMs;
    QTest::newRow("no limit") << u"exit 0"_s << -1;
    QTest::newRow("complains") << u"echo bad >&2; exit 0"_s << kPatienceMs;
    // Four times as much as a pipe can hold.
    QTest::newRow("much output on both") << u"head -c 262144 /dev/zero; head -c 262144 /dev/zero >&2"_s << kPatienceMs;
}

void TestProgramRunner::programThatEndsWithZeroSucceeds()
{
    QFETCH(const QString, text);
    QFETCH(const int, timeoutMs);
    QString error = u"untouched"_s;
    QVERIFY(runProgram(u"sh"_s, script(text), QString(), timeoutMs, &error));
    QCOMPARE(error, u"untouched"_s);
}

void TestProgramRunner::failureNamesTheProgramAndTheReason_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("reason");
    QTest::newRow("two lines and code 3") << u"echo first >&2; echo second >&2; exit 3"_s << u"first"_s;
    QTest::newRow("code 1") << u"echo why >&2; exit 1"_s << u"why"_s;
    QTest::newRow("code 255") << u"echo why >&2; exit 255"_s << u"why"_s;
    QTest::newRow("says nothing") << u"exit 1"_s << u""_s;
    QTest::newRow("standard output does not count") << u"echo out; exit 1"_s << u""_s;
    QTest::newRow("no line end") << u"printf why >&2; exit 1"_s << u"why"_s;
    QTest::newRow("carriage return and line feed") << u"printf 'why\\r\\nmore\\r\\n' >&2; exit 1"_s << u"why"_s;
    QTest::newRow("first line empty") << u"printf '\\nmore\\n' >&2; exit 1"_s << u""_s;
    QTest::newRow("blanks stay") << u"printf '  why  \\n' >&2; exit 1"_s << u"  why  "_s;
    QTest::newRow("place markers stay") << u"echo '%1 %2' >&2; exit 1"_s << u"%1 %2"_s;
    QTest::newRow("SIGKILL") << u"echo why >&2; kill -9 $$"_s << u"The process crashed"_s;
    QTest::newRow("SIGTERM") << u"kill -15 $$"_s << u"The process crashed"_s;
}

void TestProgramRunner::failureNamesTheProgramAndTheReason()
{
    QFETCH(const QString, text);
    QFETCH(const QString, reason);
    QString error;
    QVERIFY(!runProgram(u"sh"_s, script(text), QString(), kPatienceMs, &error));
    QCOMPARE(error, QString(u"Failed to run the program \"sh\": "_s + reason));
}

void TestProgramRunner::failedStartNamesTheReasonOfQProcess_data()
{
    QTest::addColumn<QString>("program"); // "%1": the test's directory
    QTest::newRow("unknown name") << u"zarvo-no-such-program"_s;
    QTest::newRow("name with blanks is no command line") << u"sh -c true"_s;
    QTest::newRow("missing file") << u"%1/missing"_s;
    QTest::newRow("file that is no program") << u"%1/text"_s;
    QTest::newRow("directory") << u"%1"_s;
}

void TestProgramRunner::failedStartNamesTheReasonOfQProcess()
{
    QFETCH(QString, program);
    const QTemporaryDir dir;
    putFile(dir.filePath(u"text"_s), "text");
    program.replace(u"%1"_s, dir.path());

    QString error;
    QVERIFY(!runProgram(program, {}, QString(), -1, &error));
    const QString beginning = u"Failed to run the program \"%1\": "_s.arg(program);
    QVERIFY2(error.startsWith(beginning), qPrintable(error));
    QVERIFY2(error.size() > beginning.size(), qPrintable(error));
    QVERIFY2(!error.contains(u'\n'), qPrintable(error));
    QVERIFY2(!error.contains(u"timed out"_s), qPrintable(error));
}

void TestProgramRunner::argumentsArePassedUnchanged()
{
    const QTemporaryDir dir;
    const QStringList arguments = {u"a b"_s, u""_s, u"$HOME; exit 1 | *"_s, u"\"quoted\" 'too'"_s, u"--ä€"_s};
    QStringList all = script(u"printf '<%s>' \"$@\" > out"_s);
    all += u"sh"_s;
    all += arguments;
    QString error;
    QVERIFY2(runProgram(u"sh"_s, all, dir.path(), kPatienceMs, &error), qPrintable(error));
    QCOMPARE(contentOf(dir.filePath(u"out"_s)), QString(u'<' + arguments.join(u"><"_s) + u'>').toUtf8());
}

void TestProgramRunner::standardInputIsAPipe()
{
    QString error;
    QVERIFY2(runProgram(u"sh"_s, script(u"test -p /dev/stdin"_s), QString(), kPatienceMs, &error), qPrintable(error));
}

void TestProgramRunner::programRunsInTheWorkingDirectory()
{
    const QTemporaryDir dir;
    const QString before = QDir::currentPath();
    QString error;
    QVERIFY2(runProgram(u"sh"_s, script(u"pwd -P > out"_s), dir.path(), kPatienceMs, &error), qPrintable(error));
    QCOMPARE(QString::fromUtf8(contentOf(dir.filePath(u"out"_s)).trimmed()), QFileInfo(dir.path()).canonicalFilePath());
    QCOMPARE(QDir::currentPath(), before);

    QVERIFY(!runProgram(u"sh"_s, script(u"exit 0"_s), dir.filePath(u"missing"_s), kPatienceMs, &error));
    QVERIFY2(error.startsWith(u"Failed to run the program \"sh\": "_s), qPrintable(error));
}

void TestProgramRunner::emptyWorkingDirectoryMeansTheCallers()
{
    const QTemporaryDir dir;
    const QString out = dir.filePath(u"out"_s);
    QString error;
    QVERIFY2(runProgram(u"sh"_s, {u"-c"_s, u"pwd -P > \"$1\""_s, u"sh"_s, out}, QString(), kPatienceMs, &error),
             qPrintable(error));
    QCOMPARE(QString::fromUtf8(contentOf(out).trimmed()), QFileInfo(QDir::currentPath()).canonicalFilePath());
}

void TestProgramRunner::programThatRunsTooLongIsKilledAndReaped()
{
    const QTemporaryDir dir;
    int pid = 0;
    // The shell ignores SIGTERM. On a busy machine it may be killed before it has written its pid.
    for (int timeMs = 1000; pid == 0 && timeMs < kPatienceMs; timeMs *= 3) {
        QElapsedTimer clock;
        clock.start();
        QString error;
        QVERIFY(
            !runProgram(u"sh"_s, script(u"trap '' TERM; echo $$ > pid; exec sleep 600"_s), dir.path(), timeMs, &error));
        QVERIFY(clock.elapsed() >= timeMs);
        QVERIFY(clock.elapsed() < timeMs + kPatienceMs);
        QCOMPARE(error, u"Failed to run the program \"sh\": Process operation timed out"_s);
        pid = contentOf(dir.filePath(u"pid"_s)).trimmed().toInt();
    }
    QVERIFY(pid > 0);
    QCOMPARE(::kill(pid, 0), -1);
    QCOMPARE(errno, ESRCH);
}

ZARVO_TEST(TestProgramRunner)

#include "tst_programrunner.moc"
