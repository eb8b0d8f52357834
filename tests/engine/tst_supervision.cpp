// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "engine/supervision.h"
#include "tests/engine/agentprocess.h"
#include "tests/engine/agentsocket.h"
#include "tests/engine/reserveddisplays.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

using Wait = int (*)(Session *session, int timeoutMs);

class TestSupervision : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void agentInTheDirectoryLives();
    void agentLivesUnderAnyNameOfTheDirectory();
    void processElsewhereIsNoAgent();
    void processThatIsGoneIsNoAgent();
    void processThatNobodyAskedForIsGone();
    void agentOfARemovedDirectoryIsGone();
    void pidsThatNoProcessHasAreGone_data();
    void pidsThatNoProcessHasAreGone();
    void agentThatMovedAwayIsGoneAndThatComesBackLives();
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
    void exitCodeThatComesLateMendsTheSession();
    void refreshOfALivingAgentMendsTheSession();

    void nothingWorksWithoutADirectory_data();
    void nothingWorksWithoutADirectory();

    void waitEndsWhenItsConditionIsMet_data();
    void waitEndsWhenItsConditionIsMet();
    void otherChangesDoNotEndAWait_data();
    void otherChangesDoNotEndAWait();
    void passwordsChangeInEveryWay_data();
    void passwordsChangeInEveryWay();
    void waitWithoutTimeRefreshesOnce_data();
    void waitWithoutTimeRefreshesOnce();
    void negativeTimeoutEndsOnTheEventAlone_data();
    void negativeTimeoutEndsOnTheEventAlone();
    void timeoutEndsAWait_data();
    void timeoutEndsAWait();
    void exitEndsAWaitForAChange_data();
    void exitEndsAWaitForAChange();
    void lastWordOfAnAgentCountsBeforeItsExit();
    void waitForExitSeesTheEnd();
    void failedRefreshEndsAWait_data();
    void failedRefreshEndsAWait();
    void stepsAreNoLongerThanTheTimeLeft();
    void stepsWithoutALimitHaveTheirFullLength();
    void interruptedSleepGoesOn();
    void failedSleepEndsAWait();

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

private:
    [[nodiscard]] QString file(const QString &name) const { return directory + u'/' + name; }
    [[nodiscard]] QString socketPath() const { return agentSocketPath(displays->first()); }
    /** A session whose agent is this process. */
    [[nodiscard]] Session sessionOf(qint32 pid) const;

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<ReservedDisplays> displays;
    QString directory;
};

namespace {

/** What system calls do on demand, on the thread that runs the tests alone. */
struct SystemFault
{
    bool hideLinks = false;         ///< lstat() finds no symbolic links
    int sleepErrno = 0;             ///< how nanosleep() fails; EINTR: once, with half of the time left
    bool recordSleeps = false;      ///< keeps what nanosleep() is asked for
    std::vector<qint64> sleepsInNs; ///< what it was asked for
};
thread_local SystemFault fault;

qint64 nanoseconds(const timespec &time)
{
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

} // namespace

// Stand before the C library's own and go on to them through other calls.

extern "C" int lstat(const char *path, struct stat *status) noexcept
{
    const int outcome = ::fstatat(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
    if (outcome == 0 && fault.hideLinks && S_ISLNK(status->st_mode)) {
        status->st_mode = S_IFDIR | 0700;
    }
    return outcome;
}

extern "C" int nanosleep(const timespec *wanted, timespec *left)
{
    if (fault.recordSleeps) {
        fault.sleepsInNs.push_back(nanoseconds(*wanted));
    }
    if (const int error = std::exchange(fault.sleepErrno, 0); error != 0) {
        if (error == EINTR) {
            *left = {wanted->tv_sec / 2, wanted->tv_nsec / 2};
        }
        errno = error;
        return -1;
    }
    errno = ::clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, left);
    return errno == 0 ? 0 : -1;
}

namespace {

constexpr qint64 kMillisecond = 1000000;
/** Longer than any test runs: a wait that ends has ended for another reason. */
constexpr int kLongTimeoutMs = 100000;

const char kQuiet[] = R"({"Clients": 0, "Passwords": []})";
const char kStarted[] = R"({"Started": "2024-05-06T11:08:09"})";
const char kConnected[] = R"({"LastConnect": "2024-05-06T12:08:09"})";
const char kDisconnected[] = R"({"LastDisconnect": "2024-05-06T13:08:09"})";
const char kPassword[] = R"({"Passwords": ["pw"]})";

QDateTime at(int hour)
{
    return QDateTime(QDate(2024, 5, 6), QTime(hour, 8, 9));
}

/** The waits for a change, each with the state that ends it. */
struct ChangeWait
{
    const char *name;
    Wait wait;
    QByteArray state;
};

const std::vector<ChangeWait> &changeWaits()
{
    static const std::vector<ChangeWait> all = {
        {"started", waitForStarted, kStarted},
        {"connect", waitForConnect, kConnected},
        {"disconnect", waitForDisconnect, kDisconnected},
        {"passwords", waitForPasswordsChange, kPassword},
    };
    return all;
}

/** Waits until the process has ended, and leaves it as it is then: a zombie. */
void waitForZombie(qint32 pid)
{
    siginfo_t info = {};
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

/** Does something on a thread of its own once an agent was asked this many times. Ends with the object. */
class AfterCalls final
{
public:
    AfterCalls(const AgentSocket &socket, int calls, std::function<void()> action)
        : thread([this, &socket, calls, action = std::move(action)] {
            while (!ending && socket.calls() < calls) {
                std::this_thread::yield();
            }
            if (!ending) {
                action();
            }
        })
    {
    }
    ~AfterCalls()
    {
        ending = true;
        thread.join();
    }
    Q_DISABLE_COPY_MOVE(AfterCalls)

private:
    std::atomic<bool> ending = false;
    std::thread thread;
};

/**
 * Has the agent note two signals, the second only once the first was seen: any that it got before stands in the
 * file by then. The file afterwards.
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

void TestSupervision::init()
{
    folder = std::make_unique<QTemporaryDir>();
    directory = folder->filePath(u"session"_s);
    QVERIFY(QDir().mkpath(directory));
    logger = std::make_unique<CollectingLogger>();
    displays = std::make_unique<ReservedDisplays>();
    fault = SystemFault();
}

void TestSupervision::cleanup()
{
    fault = SystemFault();
    displays.reset();
    logger.reset();
    folder.reset();
}

Session TestSupervision::sessionOf(qint32 pid) const
{
    Session session;
    session.directory = directory;
    session.display = displays->first();
    session.monitorPid = pid;
    session.logStamp = epoch();
    return session;
}

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

void TestSupervision::processElsewhereIsNoAgent()
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

void TestSupervision::processThatIsGoneIsNoAgent()
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

void TestSupervision::processThatNobodyAskedForIsGone()
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
    // Another directory of that name is another session.
    QVERIFY(QDir().mkpath(directory));
    putFile(file(u"server_exit"_s), "3");
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, true);
}

void TestSupervision::pidsThatNoProcessHasAreGone_data()
{
    QTest::addColumn<qint32>("pid");
    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -1;
    QTest::newRow("largest") << std::numeric_limits<qint32>::max();
    QTest::newRow("smallest") << std::numeric_limits<qint32>::min();
}

void TestSupervision::pidsThatNoProcessHasAreGone()
{
    QFETCH(qint32, pid);
    putFile(file(u"server_exit"_s), "3");
    Session session = sessionOf(pid);
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, 3);
}

void TestSupervision::agentThatMovedAwayIsGoneAndThatComesBackLives()
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
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("line");
    QTest::newRow("missing") << QByteArray() << u"Failed to open the file \"%1\": No such file or directory"_s;
    QTest::newRow("empty") << QByteArray("") << u"Failed to read from the file \"%1\": Unknown error"_s;
    QTest::newRow("no number") << QByteArray("none") << u"Failed to read from the file \"%1\": Unknown error"_s;
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

void TestSupervision::exitCodeThatComesLateMendsTheSession()
{
    Session session = sessionOf(0);
    QCOMPARE(refreshSession(&session), ReadFailed);
    QCOMPARE(session.broken, true);
    putFile(file(u"server_exit"_s), "3");
    QCOMPARE(refreshSession(&session), 0);
    QCOMPARE(session.broken, false);
    QCOMPARE(session.exitCode, 3);
}

void TestSupervision::refreshOfALivingAgentMendsTheSession()
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

void TestSupervision::nothingWorksWithoutADirectory_data()
{
    QTest::addColumn<Wait>("operation");
    QTest::newRow("refresh") << Wait([](Session *session, int) { return refreshSession(session); });
    QTest::newRow("exit") << Wait(waitForExit);
    QTest::newRow("signal") << Wait([](Session *session, int) { return signalSession(*session, 0); });
    for (const ChangeWait &change : changeWaits()) {
        QTest::newRow(change.name) << change.wait;
    }
}

void TestSupervision::nothingWorksWithoutADirectory()
{
    QFETCH(Wait, operation);
    const AgentSocket socket(socketPath(), kStarted);
    // Neither the limit nor what is known otherwise matters.
    for (const int timeoutMs : {-1, 0, kLongTimeoutMs}) {
        Session session = sessionOf(::getpid());
        session.directory.clear();
        session.exited = true;
        QCOMPARE(operation(&session, timeoutMs), NotInitialized);
        QVERIFY(session.started.isNull());
        QCOMPARE(session.broken, false);
    }
    QCOMPARE(socket.calls(), 0);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::waitEndsWhenItsConditionIsMet_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::addColumn<QByteArray>("state");
    for (const ChangeWait &change : changeWaits()) {
        QTest::newRow(change.name) << change.wait << change.state;
    }
}

void TestSupervision::waitEndsWhenItsConditionIsMet()
{
    QFETCH(Wait, wait);
    QFETCH(QByteArray, state);
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    socket.setStates({kQuiet, kQuiet, state});
    Session session = sessionOf(agent.pid());
    QCOMPARE(wait(&session, kLongTimeoutMs), 0);
    QCOMPARE(socket.calls(), 3);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::otherChangesDoNotEndAWait_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::addColumn<QList<QByteArray>>("states");
    for (const ChangeWait &change : changeWaits()) {
        QList<QByteArray> states;
        for (const ChangeWait &other : changeWaits()) {
            if (other.wait != change.wait) {
                states.append(other.state);
            }
        }
        QTest::newRow(change.name) << change.wait << states + QList<QByteArray>{change.state};
    }
}

void TestSupervision::otherChangesDoNotEndAWait()
{
    QFETCH(Wait, wait);
    QFETCH(QList<QByteArray>, states);
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    socket.setStates(states);
    Session session = sessionOf(agent.pid());
    QCOMPARE(wait(&session, kLongTimeoutMs), 0);
    QCOMPARE(socket.calls(), 4);
}

void TestSupervision::passwordsChangeInEveryWay_data()
{
    QTest::addColumn<QByteArray>("passwords");
    QTest::newRow("none left") << QByteArray("[]");
    QTest::newRow("fewer") << QByteArray(R"(["a", "b"])");
    QTest::newRow("more") << QByteArray(R"(["a", "b", "c", "d"])");
    QTest::newRow("first differs") << QByteArray(R"(["x", "b", "c"])");
    QTest::newRow("middle differs") << QByteArray(R"(["a", "x", "c"])");
    QTest::newRow("last differs") << QByteArray(R"(["a", "b", "x"])");
    QTest::newRow("another order") << QByteArray(R"(["a", "c", "b"])");
}

void TestSupervision::passwordsChangeInEveryWay()
{
    QFETCH(QByteArray, passwords);
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    const QByteArray same = R"({"Passwords": ["a", "b", "c"]})";
    socket.setStates({same, same, "{\"Passwords\": " + passwords + '}'});
    Session session = sessionOf(agent.pid());
    session.passwords = QStringList({u"a"_s, u"b"_s, u"c"_s});
    QCOMPARE(waitForPasswordsChange(&session, kLongTimeoutMs), 0);
    QCOMPARE(socket.calls(), 3);
}

void TestSupervision::waitWithoutTimeRefreshesOnce_data()
{
    waitEndsWhenItsConditionIsMet_data();
}

void TestSupervision::waitWithoutTimeRefreshesOnce()
{
    QFETCH(Wait, wait);
    QFETCH(QByteArray, state);
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath(), kQuiet);
    Session session = sessionOf(agent.pid());
    QCOMPARE(wait(&session, 0), TimedOut);
    QCOMPARE(socket.calls(), 1);
    socket.setState(state);
    QCOMPARE(wait(&session, 0), 0);
    QCOMPARE(socket.calls(), 2);
    // What it was at the beginning of this wait, not of an earlier one.
    QCOMPARE(wait(&session, 0), TimedOut);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::negativeTimeoutEndsOnTheEventAlone_data()
{
    waitEndsWhenItsConditionIsMet_data();
}

void TestSupervision::negativeTimeoutEndsOnTheEventAlone()
{
    QFETCH(Wait, wait);
    QFETCH(QByteArray, state);
    const AgentProcess agent(directory);
    for (const int timeoutMs : {-1, std::numeric_limits<int>::min()}) {
        AgentSocket socket(socketPath());
        socket.setStates({kQuiet, kQuiet, kQuiet, state});
        Session session = sessionOf(agent.pid());
        QCOMPARE(wait(&session, timeoutMs), 0);
        QCOMPARE(socket.calls(), 4);
    }
}

void TestSupervision::timeoutEndsAWait_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::newRow("exit") << Wait(waitForExit);
    for (const ChangeWait &change : changeWaits()) {
        QTest::newRow(change.name) << change.wait;
    }
}

void TestSupervision::timeoutEndsAWait()
{
    QFETCH(Wait, wait);
    const AgentProcess agent(directory);
    const AgentSocket socket(socketPath(), kQuiet);
    Session session = sessionOf(agent.pid());
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(wait(&session, 120), TimedOut);
    QVERIFY(timer.elapsed() >= 120);
    // One more for a sleep that ends just before the limit.
    QVERIFY2(socket.calls() <= 5, qPrintable(QString::number(socket.calls())));
    QCOMPARE(session.exited, false);
    QCOMPARE(session.broken, false);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::exitEndsAWaitForAChange_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::addColumn<int>("timeoutMs");
    for (const ChangeWait &change : changeWaits()) {
        QTest::newRow(change.name) << change.wait << kLongTimeoutMs;
    }
    QTest::newRow("without a limit") << Wait(waitForStarted) << -1;
}

void TestSupervision::exitEndsAWaitForAChange()
{
    QFETCH(Wait, wait);
    QFETCH(int, timeoutMs);
    const AgentProcess agent(directory);
    const AgentSocket socket(socketPath(), kQuiet);
    const AfterCalls end(socket, 2, [&] {
        putFile(file(u"server_exit"_s), "3");
        agent.endUnnoticed();
    });
    Session session = sessionOf(agent.pid());
    QCOMPARE(wait(&session, timeoutMs), UnknownError);
    QVERIFY(socket.calls() >= 2);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, 3);
    QCOMPARE(session.broken, false);

    // The same at once, and before the time is up that there is not.
    QCOMPARE(wait(&session, 0), UnknownError);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::lastWordOfAnAgentCountsBeforeItsExit()
{
    putFile(file(u"server_exit"_s), "0");
    putFile(file(u"server_log"_s), "RDP initialized at '2024-05-06T11:08:09'\n");
    Session session = sessionOf(0);
    QCOMPARE(waitForStarted(&session, kLongTimeoutMs), 0);
    QCOMPARE(session.exited, true);
    QCOMPARE(waitForStarted(&session, kLongTimeoutMs), UnknownError);
}

void TestSupervision::waitForExitSeesTheEnd()
{
    for (const int timeoutMs : {kLongTimeoutMs, -1}) {
        const AgentProcess agent(directory);
        const AgentSocket socket(socketPath(), kQuiet);
        const AfterCalls end(socket, 2, [&] {
            putFile(file(u"server_exit"_s), "3");
            agent.endUnnoticed();
        });
        Session session = sessionOf(agent.pid());
        QCOMPARE(waitForExit(&session, timeoutMs), 0);
        QVERIFY(socket.calls() >= 2);
        QCOMPARE(session.exited, true);
        QCOMPARE(session.exitCode, 3);
        QCOMPARE(waitForExit(&session, 0), 0);
    }
}

void TestSupervision::failedRefreshEndsAWait_data()
{
    timeoutEndsAWait_data();
}

void TestSupervision::failedRefreshEndsAWait()
{
    QFETCH(Wait, wait);
    for (const int timeoutMs : {kLongTimeoutMs, 0, -1}) {
        Session session = sessionOf(0);
        QCOMPARE(wait(&session, timeoutMs), ReadFailed);
        QCOMPARE(session.broken, true);
        QCOMPARE(logger->takeLines().size(), 1);
    }
}

void TestSupervision::stepsAreNoLongerThanTheTimeLeft()
{
    const AgentProcess agent(directory);
    for (const int timeoutMs : {1, 30, 50, 130}) {
        Session session = sessionOf(agent.pid());
        fault.sleepsInNs.clear();
        fault.recordSleeps = true;
        const int code = waitForExit(&session, timeoutMs);
        fault.recordSleeps = false;
        QCOMPARE(code, TimedOut);
        qint64 sum = 0;
        for (const qint64 step : fault.sleepsInNs) {
            QVERIFY2(step >= 0 && step <= 50 * kMillisecond, qPrintable(QString::number(step)));
            sum += step;
        }
        QVERIFY2(sum <= timeoutMs * kMillisecond, qPrintable(QString::number(sum)));
    }
}

void TestSupervision::stepsWithoutALimitHaveTheirFullLength()
{
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    socket.setStates({kQuiet, kQuiet, kQuiet, kStarted});
    Session session = sessionOf(agent.pid());
    fault.recordSleeps = true;
    QCOMPARE(waitForStarted(&session, -1), 0);
    fault.recordSleeps = false;
    QCOMPARE(fault.sleepsInNs, std::vector<qint64>(3, 50 * kMillisecond));
}

void TestSupervision::interruptedSleepGoesOn()
{
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    socket.setStates({kQuiet, kStarted});
    Session session = sessionOf(agent.pid());
    fault.recordSleeps = true;
    fault.sleepErrno = EINTR;
    QCOMPARE(waitForStarted(&session, -1), 0);
    fault.recordSleeps = false;
    QCOMPARE(socket.calls(), 2);
    QCOMPARE(fault.sleepsInNs, std::vector<qint64>({50 * kMillisecond, 25 * kMillisecond}));
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervision::failedSleepEndsAWait()
{
    const AgentProcess agent(directory);
    const AgentSocket socket(socketPath(), kQuiet);
    for (const Wait wait : {waitForExit, waitForStarted}) {
        Session session = sessionOf(agent.pid());
        const int calls = socket.calls();
        fault.sleepErrno = EINVAL;
        QCOMPARE(wait(&session, kLongTimeoutMs), UnknownError);
        QCOMPARE(socket.calls(), calls + 1);
        QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to sleep: Invalid argument"_s});
    }
}

void TestSupervision::signalIsDelivered_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QByteArray>("noted");
    QTest::newRow("USR1") << SIGUSR1 << QByteArray("USR1\n");
    QTest::newRow("USR2") << SIGUSR2 << QByteArray("USR2\n");
    QTest::newRow("TERM") << SIGTERM << QByteArray("TERM\n");
}

void TestSupervision::signalIsDelivered()
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

void TestSupervision::signalGoesToTheProcessThatTheAgentNamed()
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

void TestSupervision::signalNeedsADirectory_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("missing") << u"missing"_s;
    QTest::newRow("file") << u"file"_s;
}

void TestSupervision::signalNeedsADirectory()
{
    QFETCH(QString, name);
    putFile(folder->filePath(u"file"_s), "");
    Session session = sessionOf(0);
    session.directory = folder->filePath(name);
    QCOMPARE(signalSession(session, 0), NotASession);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: The directory \"%1\" does not exist"_s.arg(session.directory)});
}

void TestSupervision::signalNeedsAPid_data()
{
    unreadableExitCodeBreaksTheSession_data();
}

void TestSupervision::signalNeedsAPid()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, line);
    if (!content.isNull()) {
        putFile(file(u"server_pid"_s), content);
    }
    QCOMPARE(signalSession(sessionOf(0), 0), ReadFailed);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: "_s + line.arg(file(u"server_pid"_s))});
}

void TestSupervision::signalThatCannotBeSentFails()
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

void TestSupervision::signalNeverReachesAGroup_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<qint32>("pid");
    QTest::newRow("own group") << QByteArray("0") << 0;
    QTest::newRow("everybody") << QByteArray("-1") << -1;
    QTest::newRow("own group by its number")
        << QByteArray::number(-static_cast<qint64>(::getpgrp())) << -static_cast<qint32>(::getpgrp());
    QTest::newRow("own group once cut to size") << QByteArray("4294967296") << 0;
    QTest::newRow("everybody once cut to size") << QByteArray("4294967295") << -1;
}

void TestSupervision::signalNeverReachesAGroup()
{
    QFETCH(QByteArray, content);
    QFETCH(qint32, pid);
    // A signal that does no harm to those who do not expect it, should it reach them after all.
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

ZARVO_TEST(TestSupervision)

#include "tst_supervision.moc"
