// SPDX-License-Identifier: MIT
#include "agent/applications/processtree.h"
#include "agent/session/guard.h"
#include "agent/session/guardlink.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <atomic>
#include <csignal>
#include <ctime>
#include <functional>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** By how many seconds the clocks are fast, in this process and in its children. */
std::atomic_long *clockShift()
{
    static void *const shared =
        ::mmap(nullptr, sizeof(std::atomic_long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<std::atomic_long *>(shared);
}

} // namespace

/** Replaces the C library's function in this program. */
extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
    time->tv_sec += *clockShift();
    return result;
}

/** A guard takes over its process, so each guard runs in a child of the test. */
class GuardTest final : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> directory;
    pid_t guard = 0;

    QString path(const QString &name) const { return directory->filePath(name); }

    /** Runs @p agent under a guard. */
    void start(const std::function<int(int link)> &agent)
    {
        guard = ::fork();
        if (guard != 0) {
            return;
        }
        pid_t pid = 0;
        int link = -1;
        QString error;
        if (!forkAgent(&pid, &link, &error)) {
            ::_exit(100);
        }
        ::_exit(pid == 0 ? agent(link) : static_cast<int>(guardAgent(pid, link)));
    }

    /** The guard's exit code; -1 when it has none. */
    int exitCode()
    {
        int status = 0;
        const auto hasEnded = [&] { return ::waitpid(guard, &status, WNOHANG) == guard; };
        return QTest::qWaitFor(hasEnded, 30000) && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    [[nodiscard]] bool isMarked()
    {
        return QTest::qWaitFor([this] { return QFileInfo::exists(path(u"mark"_s)); }, 10000);
    }

    static int runScript(const QByteArray &script)
    {
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execl("/bin/sh", "sh", "-c", script.constData(), nullptr);
        return 127;
    }

private slots:
    void initTestCase() { QCOMPARE(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }

    void init() { directory = std::make_unique<QTemporaryDir>(); }

    void exitCodeIsPassedOn()
    {
        start([](int) { return 2; });
        QCOMPARE(exitCode(), 2);
    }

    void signalsArePassedOn_data()
    {
        QTest::addColumn<int>("number");
        QTest::newRow("TERM") << SIGTERM;
        QTest::newRow("INT") << SIGINT;
        QTest::newRow("HUP") << SIGHUP;
        QTest::newRow("USR1") << SIGUSR1;
        QTest::newRow("USR2") << SIGUSR2;
    }

    void signalsArePassedOn()
    {
        QFETCH(int, number);
        const QByteArray mark = QFile::encodeName(path(u"mark"_s));
        start([&](int) {
            return runScript("trap 'exit 7' " + QByteArray::number(number) + "; touch " + mark +
                             "; while :; do sleep 0.05; done");
        });
        QVERIFY(isMarked());
        QCOMPARE(::kill(guard, number), 0);
        QCOMPARE(exitCode(), 7);
    }

    // A signal that comes before the agent has handlers must not end it.
    void signalsWaitForTheAgent()
    {
        const QByteArray mark = QFile::encodeName(path(u"mark"_s));
        start([&](int) {
            ::close(::open(mark.constData(), O_CREAT | O_WRONLY, 0600));
            sigset_t set;
            ::sigemptyset(&set);
            ::sigaddset(&set, SIGUSR1);
            const timespec limit = {20, 0};
            return ::sigtimedwait(&set, nullptr, &limit) == SIGUSR1 ? 8 : 9;
        });
        QVERIFY(isMarked());
        QCOMPARE(::kill(guard, SIGUSR1), 0);
        QCOMPARE(exitCode(), 8);
    }

    void processesOfAKilledAgentAreEnded()
    {
        const QByteArray mark = QFile::encodeName(path(u"mark"_s));
        start([&](int) {
            return runScript("(setsid sh -c 'sleep 1000 & sleep 1000' &); setsid sh -c 'trap \"\" TERM; echo '$$' > " +
                             mark + "; while :; do sleep 0.05; done' & wait");
        });
        QTRY_VERIFY(contentOf(path(u"mark"_s)).endsWith('\n'));
        QTRY_VERIFY(liveDescendants(guard, 0).size() >= 5);
        QCOMPARE(::kill(contentOf(path(u"mark"_s)).trimmed().toInt(), SIGKILL), 0);
        QCOMPARE(exitCode(), 4);
        QVERIFY(liveDescendants(::getpid(), 0).isEmpty());
    }

    // A busy machine may not let the guard run until all the time is over.
    void processesOfAKilledAgentAreKilledEvenAfterTheDeadline()
    {
        const QByteArray mark = QFile::encodeName(path(u"mark"_s));
        start([&](int) {
            return runScript("setsid sh -c 'trap \"touch " + mark + ".asked\" TERM; echo '$$' > " + mark +
                             "; while :; do sleep 0.05; done' & wait");
        });
        QTRY_VERIFY(contentOf(path(u"mark"_s)).endsWith('\n'));
        QCOMPARE(::kill(contentOf(path(u"mark"_s)).trimmed().toInt(), SIGKILL), 0);
        QTRY_VERIFY(QFileInfo::exists(path(u"mark.asked"_s)));
        *clockShift() += 60;
        QCOMPARE(exitCode(), 4);
        QVERIFY(liveDescendants(::getpid(), 0).isEmpty());
    }

    void agentNoticesTheDeathOfItsGuard()
    {
        std::array<int, 2> ends = {};
        QCOMPARE(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
        GuardLink link(ends[1]);
        QSignalSpy lost(&link, &GuardLink::lost);
        link.tell({7, 1234});
        AgentHoldings received;
        QCOMPARE(::recv(ends[0], &received, sizeof received, 0), ssize_t{sizeof received});
        QCOMPARE(received.display, 7);
        QCOMPARE(received.xServer, pid_t{1234});
        QVERIFY(isGuardAlive(ends[1]));
        QCOMPARE(lost.count(), 0);
        ::close(ends[0]);
        QTRY_COMPARE(lost.count(), 1);
        QVERIFY(!isGuardAlive(ends[1]));
        link.tell({}); // must not fail without a guard
        ::close(ends[1]);
    }
};

ZARVO_TEST(GuardTest)
#include "tst_guard.moc"
