// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "engine/supervision.h"
#include "tests/engine/supervisionfixture.h"
#include "tests/testmain.h"

#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace Qt::StringLiterals;

class TestSupervision : public QObject, private SupervisionFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void agentInTheDirectoryLives();
    void agentLivesUnderAnyNameOfTheDirectory();
    void processInAnotherDirectoryIsNoAgent();
    void endedProcessIsNoAgent();
    void zombieCountsAsEnded();
    void agentOfARemovedDirectoryIsGone();
    void pidsWithoutAProcessAreGone_data();
    void pidsWithoutAProcessAreGone();
    void agentIsGoneWhileItWorksInAnotherDirectory();
    void unknownLivenessBreaksTheSession();

    void socketTellsTheState();
    void socketComesBeforeTheLog();
    void staleSocketChangesNothing();
    void logTellsTheStateWithoutASocket();
    void logIsReadUpToTheToleranceOfItsStamp_data();
    void logIsReadUpToTheToleranceOfItsStamp();
    void logCountsAgainOnEveryRefresh();
    void logThatCannotBeReadChangesNothing();
    void logOfAnAgentThatIsGoneIsRead();

    void exitCodeIsRead_data();
    void exitCodeIsRead();
    void exitCodeOfALivingAgentIsNotRead();
    void unreadableExitCodeBreaksTheSession_data();
    void unreadableExitCodeBreaksTheSession();
    void lateExitCodeRepairsTheSession();
    void refreshOfALivingAgentRepairsTheSession();
};

namespace {

QDateTime at(int hour)
{
    return QDateTime(QDate(2024, 5, 6), QTime(hour, 8, 9));
}

/** Waits until the process has ended and leaves the zombie. */
void waitForZombie(qint32 pid)
{
    siginfo_t info = {};
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

} // namespace

void TestSupervision::agentInTheDirectoryLives()
{
    const AgentProcess agent(directory);
    Session session = sessionOf(agent.pid());
    session.exited = true;
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, false);
    QCOMPARE(session.broken, false);
    QCOMPARE(session.exitCode, -1);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::agentLivesUnderAnyNameOfTheDirectory()
{
    const QString otherName = folder->filePath(u"other name"_s);
    QVERIFY(QFile::link(directory, otherName));
    const AgentProcess agent(directory);
    Session session = sessionOf(agent.pid());
    for (const QString &name : {otherName, directory + u"/../session/."_s}) {
        session.directory = name;
        QCOMPARE(refreshSession(&session), 0);
        QCOMPARE(session.exited, false);
    }
}

void TestSupervision::processInAnotherDirectoryIsNoAgent()
{
    putFile(file(u"server_exit"_s), "3");
    QVERIFY(QDir(directory).mkdir(u"inside"_s));
    for (const QString &elsewhere : {folder->path(), file(u"inside"_s), u"/"_s}) {
        const AgentProcess other(elsewhere);
        Session session = sessionOf(other.pid());
        QCOMPARE(refreshSession(&session), 0);
        QCOMPARE(session.exited, true);
        QCOMPARE(session.exitCode, 3);
    }
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::endedProcessIsNoAgent()
{
    putFile(file(u"server_exit"_s), "3");
    AgentProcess agent(directory);
    Session session = sessionOf(agent.pid());
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, false);
    agent.end();
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, 3);
}

void TestSupervision::zombieCountsAsEnded()
{
    putFile(file(u"server_exit"_s), "3");
    const AgentProcess agent(directory);
    Session session = sessionOf(agent.pid());
    agent.endUnnoticed();
    waitForZombie(agent.pid());
    QVERIFY(QFile::exists(u"/proc/%1"_s.arg(agent.pid())));
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, 3);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::agentOfARemovedDirectoryIsGone()
{
    const AgentProcess agent(directory);
    Session session = sessionOf(agent.pid());
    QVERIFY(QDir(directory).removeRecursively());
    QCOMPARE(refreshSession(&session), ReadFailed);
    QCOMPARE(session.exited, true);
    // A new directory of the same name is another session.
    QVERIFY(QDir().mkpath(directory));
    putFile(file(u"server_exit"_s), "3");
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, true);
}

void TestSupervision::pidsWithoutAProcessAreGone_data()
{
    QTest::addColumn<qint32>("pid");
    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -1;
    QTest::newRow("largest") << std::numeric_limits<qint32>::max();
    QTest::newRow("smallest") << std::numeric_limits<qint32>::min();
}

void TestSupervision::pidsWithoutAProcessAreGone()
{
    QFETCH(qint32, pid);
    putFile(file(u"server_exit"_s), "3");
    Session session = sessionOf(pid);
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, 3);
}

void TestSupervision::agentIsGoneWhileItWorksInAnotherDirectory()
{
    putFile(file(u"server_exit"_s), "3");
    AgentProcess agent(directory, u"home=$PWD\n"
                                  "trap 'cd /; echo > \"$home/away\"' USR1\n"
                                  "trap 'cd \"$home\"; echo > back' USR2\n"
                                  "echo > ready\n"
                                  "while [ -e \"$home/ready\" ]; do sleep 0.1; done\n"_s);
    QVERIFY(waitForFile(file(u"ready"_s)));
    Session session = sessionOf(agent.pid());
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, false);

    ::kill(agent.pid(), SIGUSR1);
    QVERIFY(waitForFile(file(u"away"_s)));
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, true);

    ::kill(agent.pid(), SIGUSR2);
    QVERIFY(waitForFile(file(u"back"_s)));
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, false);
}

void TestSupervision::unknownLivenessBreaksTheSession()
{
    const AgentProcess agent(directory);
    putFile(file(u"server_log"_s), "Screen resized to '3x4'\n");
    Session session = sessionOf(agent.pid());
    fault.hideLinks = true;
    QCOMPARE(refreshSession(&session), UnknownError);
    QCOMPARE(session.broken, true);
    QCOMPARE(session.exited, false);
    QCOMPARE(session.screenSize, QSize(-1, -1));
    QCOMPARE(
        logger->takeLines(),
        QStringList{u"Warning: Failed to determine if the process with pid \"%1\" is alive: Invalid proc format"_s.arg(
            agent.pid())});
}

void TestSupervision::socketTellsTheState()
{
    const AgentProcess agent(directory);
    const AgentSocket socket(socketPath(), R"({"Started": "2024-05-06T11:08:09", "LastConnect": "2024-05-06T12:08:09",
        "LastDisconnect": "2024-05-06T13:08:09", "ScreenWidth": 3, "ScreenHeight": 4, "Clients": 2,
        "Passwords": ["a", "b"]})");
    Session session = sessionOf(agent.pid());
    for (int refreshes = 1; refreshes <= 2; ++refreshes) {
        QCOMPARE(refreshSession(&session), 0);
        QCOMPARE(session.started, at(11));
        QCOMPARE(session.lastConnect, at(12));
        QCOMPARE(session.lastDisconnect, at(13));
        QCOMPARE(session.screenSize, QSize(3, 4));
        QCOMPARE(session.clients, 2);
        QCOMPARE(session.passwords, QStringList({u"a"_s, u"b"_s}));
        QCOMPARE(socket.calls(), refreshes);
    }
}

void TestSupervision::socketComesBeforeTheLog()
{
    const AgentProcess agent(directory);
    putFile(file(u"server_log"_s), "Screen resized to '5x6'\nAdded new password b\n");
    Session session = sessionOf(agent.pid());
    {
        const AgentSocket socket(socketPath(), R"({"ScreenWidth": 3, "ScreenHeight": 4})");
        QCOMPARE(refreshSession(&session), 0);
        QCOMPARE(session.screenSize, QSize(3, 4));
        QCOMPARE(session.passwords, QStringList());
        QCOMPARE(session.logStamp, epoch());
    }
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.screenSize, QSize(5, 6));
    QCOMPARE(session.passwords, QStringList{u"b"_s});
}

void TestSupervision::staleSocketChangesNothing()
{
    const AgentProcess agent(directory);
    putFile(file(u"server_log"_s), "Screen resized to '5x6'\n");
    putFile(socketPath(), "");
    Session session = sessionOf(agent.pid());
    session.started = at(11);
    session.clients = 2;
    session.passwords = QStringList{u"a"_s};
    session.screenSize = QSize(3, 4);
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.started, at(11));
    QCOMPARE(session.clients, 2);
    QCOMPARE(session.passwords, QStringList{u"a"_s});
    QCOMPARE(session.screenSize, QSize(3, 4));
    QCOMPARE(session.logStamp, epoch());
    QCOMPARE(session.broken, false);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::logTellsTheStateWithoutASocket()
{
    const AgentProcess agent(directory);
    Session session = sessionOf(agent.pid());
    QCOMPARE(refreshSession(&session), 0);
    QVERIFY(session.started.isNull());

    putFile(file(u"server_log"_s), "RDP initialized at '2024-05-06T11:08:09'\n");
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.started, at(11));
    QCOMPARE(session.logStamp, QFileInfo(file(u"server_log"_s)).lastModified());
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::logIsReadUpToTheToleranceOfItsStamp_data()
{
    QTest::addColumn<qint64>("stampAheadMs");
    QTest::addColumn<bool>("isRead");
    QTest::newRow("long before") << qint64(-86400000) << true;
    QTest::newRow("before") << qint64(-1) << true;
    QTest::newRow("same time") << qint64(0) << true;
    QTest::newRow("498") << qint64(498) << true;
    QTest::newRow("499") << qint64(499) << true;
    QTest::newRow("500") << qint64(500) << false;
    QTest::newRow("501") << qint64(501) << false;
    QTest::newRow("long after") << qint64(86400000) << false;
}

void TestSupervision::logIsReadUpToTheToleranceOfItsStamp()
{
    QFETCH(qint64, stampAheadMs);
    QFETCH(bool, isRead);
    const AgentProcess agent(directory);
    const QString log = file(u"server_log"_s);
    putFile(log, "Screen resized to '3x4'\n");
    const QDateTime modified = QDateTime::fromMSecsSinceEpoch(1700000000250);
    const timespec times[] = {{1700000000, 250000000}, {1700000000, 250000000}};
    QVERIFY(::utimensat(AT_FDCWD, QFile::encodeName(log).constData(), times, 0) == 0);

    Session session = sessionOf(agent.pid());
    session.logStamp = modified.addMSecs(stampAheadMs);
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.screenSize, isRead ? QSize(3, 4) : QSize(-1, -1));
    QCOMPARE(session.logStamp, isRead ? modified : modified.addMSecs(stampAheadMs));
}

void TestSupervision::logCountsAgainOnEveryRefresh()
{
    const AgentProcess agent(directory);
    putFile(file(u"server_log"_s), "Added new password a\nAdded new password b\n"
                                   "Client authenticated from 'c' at '2024-05-06T11:08:09' with password 'a'\n");
    Session session = sessionOf(agent.pid());
    for (int refreshes = 1; refreshes <= 3; ++refreshes) {
        QCOMPARE(refreshSession(&session), 0);
        QCOMPARE(session.clients, refreshes);
        QCOMPARE(session.passwords, QStringList(refreshes, u"b"_s));
    }
}

void TestSupervision::logThatCannotBeReadChangesNothing()
{
    const AgentProcess agent(directory);
    QVERIFY(QDir(directory).mkdir(u"server_log"_s));
    Session session = sessionOf(agent.pid());
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.logStamp, epoch());
    QCOMPARE(session.broken, false);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::logOfAnAgentThatIsGoneIsRead()
{
    putFile(file(u"server_log"_s), "Screen resized to '3x4'\n");
    Session session = sessionOf(0);
    QCOMPARE(refreshSession(&session), ReadFailed);
    QCOMPARE(session.screenSize, QSize(3, 4));
}

void TestSupervision::exitCodeIsRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<qint32>("exitCode");
    QTest::newRow("zero") << QByteArray("0") << 0;
    QTest::newRow("one") << QByteArray("1") << 1;
    QTest::newRow("with line end") << QByteArray("255\n") << 255;
    QTest::newRow("negative") << QByteArray("-1") << -1;
    QTest::newRow("more behind") << QByteArray(" 7 8") << 7;
}

void TestSupervision::exitCodeIsRead()
{
    QFETCH(QByteArray, content);
    QFETCH(qint32, exitCode);
    putFile(file(u"server_exit"_s), content);
    Session session = sessionOf(0);
    session.exitCode = 99;
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, exitCode);
    QCOMPARE(session.broken, false);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::exitCodeOfALivingAgentIsNotRead()
{
    const AgentProcess agent(directory);
    putFile(file(u"server_exit"_s), "3");
    Session session = sessionOf(agent.pid());
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exitCode, -1);
}

void TestSupervision::unreadableExitCodeBreaksTheSession_data()
{
    addUnreadableNumbers();
}

void TestSupervision::unreadableExitCodeBreaksTheSession()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, line);
    if (!content.isNull()) {
        putFile(file(u"server_exit"_s), content);
    }
    Session session = sessionOf(0);
    QCOMPARE(refreshSession(&session), ReadFailed);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, -1);
    QCOMPARE(session.broken, true);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: "_s + line.arg(file(u"server_exit"_s))});
}

void TestSupervision::lateExitCodeRepairsTheSession()
{
    Session session = sessionOf(0);
    QCOMPARE(refreshSession(&session), ReadFailed);
    QCOMPARE(session.broken, true);
    putFile(file(u"server_exit"_s), "3");
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.broken, false);
    QCOMPARE(session.exitCode, 3);
}

void TestSupervision::refreshOfALivingAgentRepairsTheSession()
{
    const AgentProcess agent(directory);
    Session session = sessionOf(agent.pid());
    fault.hideLinks = true;
    QCOMPARE(refreshSession(&session), UnknownError);
    QCOMPARE(session.broken, true);
    fault.hideLinks = false;
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.broken, false);
}

ZARVO_TEST(TestSupervision)

#include "tst_supervision.moc"
