// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "engine/supervision.h"
#include "tests/engine/supervisionfixture.h"
#include "tests/testmain.h"

#include <csignal>

#include <unistd.h>

using namespace Qt::StringLiterals;

class TestSupervisionSignals : public QObject, private SupervisionFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void signalIsDelivered_data();
    void signalIsDelivered();
    void signalGoesToTheProcessThatTheAgentNamed();
    void signalNeedsADirectory_data();
    void signalNeedsADirectory();
    void signalNeedsAPid_data();
    void signalNeedsAPid();
    void signalThatCannotBeSentFails();
    void signalNeverReachesAGroup_data();
    void signalNeverReachesAGroup();
};

namespace {

/**
 * Sends the agent two signals, the second after it has recorded the first. By then it has recorded every earlier signal
 * too. Returns what it has recorded.
 */
QByteArray signalsAfterTwoMore(qint32 pid, const QString &signalsFile)
{
    for (int noted = 1; noted <= 2; ++noted) {
        ::kill(pid, SIGUSR1);
        const auto isNoted = [&] { return contentOf(signalsFile).count("USR1\n") >= noted; };
        if (!QTest::qWaitFor(isNoted, 20000)) {
            return "no answer";
        }
    }
    return contentOf(signalsFile);
}

volatile std::sig_atomic_t urgentSignals = 0;

void countUrgentSignal(int)
{
    urgentSignals = urgentSignals + 1;
}

} // namespace

void TestSupervisionSignals::signalIsDelivered_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QByteArray>("noted");
    QTest::newRow("USR1") << SIGUSR1 << QByteArray("USR1\n");
    QTest::newRow("USR2") << SIGUSR2 << QByteArray("USR2\n");
    QTest::newRow("TERM") << SIGTERM << QByteArray("TERM\n");
}

void TestSupervisionSignals::signalIsDelivered()
{
    QFETCH(int, number);
    const AgentProcess agent(directory, agentScript(QString(), QString(), QString(), QString()));
    QVERIFY(waitForFile(file(u"server_pid"_s)));
    QCOMPARE(signalSession(sessionOf(0), number), 0);
    QVERIFY(waitForFile(file(u"signals"_s)));
    QTRY_VERIFY_WITH_TIMEOUT(contentOf(file(u"signals"_s)).endsWith('\n'), 20000);
    QTEST(contentOf(file(u"signals"_s)), "noted");
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervisionSignals::signalGoesToTheProcessThatTheAgentNamed()
{
    const QString otherDirectory = folder->filePath(u"other"_s);
    QVERIFY(QDir().mkpath(otherDirectory));
    const QString script = agentScript(QString(), QString(), QString(), QString());
    const AgentProcess monitor(otherDirectory, script);
    const AgentProcess agent(directory, script);
    QVERIFY(waitForFile(otherDirectory + u"/server_pid"_s));
    QVERIFY(waitForFile(file(u"server_pid"_s)));

    QCOMPARE(signalSession(sessionOf(monitor.pid()), SIGTERM), 0);
    QTRY_COMPARE_WITH_TIMEOUT(contentOf(file(u"signals"_s)), QByteArray("TERM\n"), 20000);
    QCOMPARE(signalsAfterTwoMore(monitor.pid(), otherDirectory + u"/signals"_s), QByteArray("USR1\nUSR1\n"));
}

void TestSupervisionSignals::signalNeedsADirectory_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("missing") << u"missing"_s;
    QTest::newRow("file") << u"file"_s;
}

void TestSupervisionSignals::signalNeedsADirectory()
{
    QFETCH(QString, name);
    putFile(folder->filePath(u"file"_s), "");
    Session session = sessionOf(0);
    session.directory = folder->filePath(name);
    QCOMPARE(signalSession(session, 0), NotASession);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: The directory \"%1\" does not exist"_s.arg(session.directory)});
}

void TestSupervisionSignals::signalNeedsAPid_data()
{
    addUnreadableNumbers();
}

void TestSupervisionSignals::signalNeedsAPid()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, line);
    if (!content.isNull()) {
        putFile(file(u"server_pid"_s), content);
    }
    QCOMPARE(signalSession(sessionOf(0), 0), ReadFailed);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: "_s + line.arg(file(u"server_pid"_s))});
}

void TestSupervisionSignals::signalThatCannotBeSentFails()
{
    AgentProcess agent(directory);
    const QByteArray pid = QByteArray::number(agent.pid());
    putFile(file(u"server_pid"_s), pid);
    const QString line = u"Warning: Failed to signal the process with pid \"%1\": %2"_s;

    QCOMPARE(signalSession(sessionOf(0), 0), 0);
    QCOMPARE(signalSession(sessionOf(0), 999), UnknownError);
    QCOMPARE(logger->takeLines(), QStringList{line.arg(agent.pid()).arg(u"Invalid argument"_s)});
    agent.end();
    QCOMPARE(signalSession(sessionOf(0), 0), UnknownError);
    QCOMPARE(logger->takeLines(), QStringList{line.arg(agent.pid()).arg(u"No such process"_s)});
}

void TestSupervisionSignals::signalNeverReachesAGroup_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<qint32>("pid");
    QTest::newRow("own group") << QByteArray("0") << 0;
    QTest::newRow("every process") << QByteArray("-1") << -1;
    QTest::newRow("own group by its number")
        << QByteArray::number(-static_cast<qint64>(::getpgrp())) << -static_cast<qint32>(::getpgrp());
    QTest::newRow("own group once cut to size") << QByteArray("4294967296") << 0;
    QTest::newRow("every process once cut to size") << QByteArray("4294967295") << -1;
}

void TestSupervisionSignals::signalNeverReachesAGroup()
{
    QFETCH(QByteArray, content);
    QFETCH(qint32, pid);
    // SIGURG is ignored by default, so that a failure of this test does no harm.
    struct sigaction counting = {};
    counting.sa_handler = countUrgentSignal;
    struct sigaction previous = {};
    QVERIFY(::sigaction(SIGURG, &counting, &previous) == 0);
    urgentSignals = 0;
    const AgentProcess helper(
        directory, agentScript(u"trap 'echo URG >> signals' URG; echo > ready"_s, QString(), QString(), QString()));
    QVERIFY(waitForFile(file(u"ready"_s)));
    QCOMPARE(::getpgid(helper.pid()), ::getpgrp());
    putFile(file(u"server_pid"_s), content);

    const int code = signalSession(sessionOf(0), SIGURG);
    ::sigaction(SIGURG, &previous, nullptr);
    QCOMPARE(code, UnknownError);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to signal the process with pid \"%1\": No such process"_s.arg(pid)});
    QCOMPARE(int(urgentSignals), 0);
    QCOMPARE(signalsAfterTwoMore(helper.pid(), file(u"signals"_s)), QByteArray("USR1\nUSR1\n"));
}

ZARVO_TEST(TestSupervisionSignals)

#include "tst_supervisionsignals.moc"
