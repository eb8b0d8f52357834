// SPDX-License-Identifier: MIT
#include "agent/confined/confinement.h"
#include "agent/confined/doorpackets.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/** What a process in a child tries. @return 0 if it could, else errno */
using Attempt = int (*)();

Q_DECLARE_METATYPE(Attempt)

namespace {

enum class Place { Servant, Visitor };

int errorOf(long result)
{
    return result == -1 ? errno : 0;
}

int openFile()
{
    return errorOf(::open("/etc/passwd", O_RDONLY));
}

int createFile()
{
    return errorOf(::open("/tmp", O_TMPFILE | O_RDWR, 0600));
}

int openNewSocket()
{
    return errorOf(::socket(AF_UNIX, SOCK_STREAM, 0));
}

int openNewTcpSocket()
{
    return errorOf(::socket(AF_INET, SOCK_STREAM, 0));
}

int runProgram()
{
    const std::array<char *, 1> arguments = {nullptr};
    return errorOf(::execve("/bin/true", arguments.data(), arguments.data()));
}

int runOpenProgram()
{
    const std::array<char *, 1> arguments = {nullptr};
    return errorOf(::syscall(SYS_execveat, 0, "", arguments.data(), arguments.data(), AT_EMPTY_PATH));
}

int traceParent()
{
    return errorOf(::ptrace(PTRACE_ATTACH, ::getppid(), nullptr, nullptr));
}

int readParent()
{
    std::array<char, 8> bytes = {};
    iovec own = {bytes.data(), bytes.size()};
    return errorOf(::syscall(SYS_process_vm_readv, ::getppid(), &own, 1L, &own, 1L, 0L));
}

/** As fork() does it. A child would end at once. */
int startProcess()
{
    const long child = ::syscall(SYS_fork);
    if (child == 0) {
        ::_exit(0);
    }
    return errorOf(child);
}

int startThread()
{
    const long child = ::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0L);
    if (child == 0) {
        ::_exit(0);
    }
    return errorOf(child);
}

/** Signal 0 hurts nobody, and asks for the same right. */
int signalParent()
{
    return errorOf(::syscall(SYS_kill, ::getpid(), 0L));
}

int signalThread()
{
    return errorOf(::syscall(SYS_tgkill, ::getpid(), ::getpid(), 0L));
}

int makeCode()
{
    return ::mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED ? errno : 0;
}

int makeMemory()
{
    return ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED ? errno : 0;
}

int changeDirectory()
{
    return errorOf(::chdir("/"));
}

int removeFile()
{
    return errorOf(::unlink("/tmp/no-such-file-of-this-test"));
}

int copyItself()
{
    return errorOf(::dup(0));
}

int waitForNothing()
{
    return errorOf(::syscall(SYS_poll, nullptr, 0L, 0L));
}

/** Runs @p attempt in a child that is confined. @return its result; nothing if the child died of it */
std::optional<int> resultConfined(Place place, const std::function<int()> &attempt)
{
    const Confinement confinement;
    const pid_t child = ::fork();
    if (child == 0) {
        [[maybe_unused]] const unsigned char done = confinement.confineServant();
        if (place == Place::Visitor) {
            if (!confinement.confineVisitor()) {
                ::_exit(99);
            }
        }
        ::_exit(attempt());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? std::optional(WEXITSTATUS(status)) : std::nullopt;
}

unsigned char flagsHere()
{
    const Confinement confinement;
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(confinement.confineServant());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return static_cast<unsigned char>(WEXITSTATUS(status));
}

bool hasLandlock()
{
    return ::syscall(SYS_landlock_create_ruleset, nullptr, 0L, LANDLOCK_CREATE_RULESET_VERSION) >= 1;
}

} // namespace

class ConfinementTest final : public QObject
{
    Q_OBJECT

private:
    const unsigned char flags = flagsHere();

private slots:
    // A kernel without one of them is told of it, and only then may a test skip.
    void kernelConfinesWhatItCan()
    {
        QCOMPARE((flags & kFilesAreHidden) != 0, hasLandlock());
        const bool hasSeccomp = ::prctl(PR_GET_SECCOMP) != -1;
        QCOMPARE((flags & kCallsAreFiltered) != 0, hasSeccomp);
    }

    void visitorsProcessMayNot_data()
    {
        QTest::addColumn<Attempt>("attempt");
        QTest::newRow("open a file") << Attempt(openFile);
        QTest::newRow("create a file") << Attempt(createFile);
        QTest::newRow("remove a file") << Attempt(removeFile);
        QTest::newRow("change the directory") << Attempt(changeDirectory);
        QTest::newRow("open a local socket") << Attempt(openNewSocket);
        QTest::newRow("open a TCP socket") << Attempt(openNewTcpSocket);
        QTest::newRow("run a program") << Attempt(runProgram);
        QTest::newRow("run an open file") << Attempt(runOpenProgram);
        QTest::newRow("start a process") << Attempt(startProcess);
        QTest::newRow("start a thread") << Attempt(startThread);
        QTest::newRow("trace a process") << Attempt(traceParent);
        QTest::newRow("read a process") << Attempt(readParent);
        QTest::newRow("send a signal") << Attempt(signalParent);
        QTest::newRow("send a signal to a thread") << Attempt(signalThread);
        QTest::newRow("make memory with code") << Attempt(makeCode);
        QTest::newRow("copy a descriptor") << Attempt(copyItself);
    }

    void visitorsProcessMayNot()
    {
        QFETCH(Attempt, attempt);
        if ((flags & kCallsAreFiltered) == 0) {
            QSKIP("this kernel does not filter system calls");
        }
        QCOMPARE(resultConfined(Place::Visitor, attempt), std::optional(EPERM));
    }

    void servantMayNot_data()
    {
        QTest::addColumn<Attempt>("attempt");
        QTest::newRow("open a file") << Attempt(openFile);
        QTest::newRow("open a local socket") << Attempt(openNewSocket);
        QTest::newRow("open a TCP socket") << Attempt(openNewTcpSocket);
        QTest::newRow("run a program") << Attempt(runProgram);
        QTest::newRow("trace a process") << Attempt(traceParent);
        QTest::newRow("make memory with code") << Attempt(makeCode);
    }

    void servantMayNot()
    {
        QFETCH(Attempt, attempt);
        if ((flags & kCallsAreFiltered) == 0) {
            QSKIP("this kernel does not filter system calls");
        }
        QCOMPARE(resultConfined(Place::Servant, attempt), std::optional(EPERM));
    }

    // Files alone are hidden where system calls are not filtered, and the other way round.
    void filesAreHiddenTwice()
    {
        if ((flags & kFilesAreHidden) == 0) {
            QSKIP("this kernel has no Landlock");
        }
        QVERIFY(resultConfined(Place::Visitor, openFile).value_or(0) != 0);
    }

    void servantStartsProcesses() { QCOMPARE(resultConfined(Place::Servant, startProcess), std::optional(0)); }

    void visitorsProcessMayWork_data()
    {
        QTest::addColumn<Attempt>("attempt");
        QTest::newRow("get memory") << Attempt(makeMemory);
        QTest::newRow("wait") << Attempt(waitForNothing);
    }

    void visitorsProcessMayWork()
    {
        QFETCH(Attempt, attempt);
        QCOMPARE(resultConfined(Place::Visitor, attempt), std::optional(0));
    }

    void noCoreIsWrittenAndNobodyLooksIn()
    {
        const Confinement confinement;
        std::array<int, 2> toParent = {};
        std::array<int, 2> toChild = {};
        QVERIFY(::pipe(toParent.data()) == 0 && ::pipe(toChild.data()) == 0);
        const pid_t child = ::fork();
        char byte = 0;
        if (child == 0) {
            [[maybe_unused]] const unsigned char done = confinement.confineServant();
            const bool isSafe = ::prctl(PR_GET_DUMPABLE) == 0 && ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1;
            [[maybe_unused]] const ssize_t told = ::write(toParent[1], "x", 1);
            [[maybe_unused]] const ssize_t asked = ::read(toChild[0], &byte, 1);
            ::_exit(isSafe ? 0 : 1);
        }
        QCOMPARE(::read(toParent[0], &byte, 1), ssize_t{1});
        rlimit limits = {1, 1};
        const int isRead = ::prlimit(child, RLIMIT_CORE, nullptr, &limits);
        QCOMPARE(::write(toChild[1], "x", 1), ssize_t{1});
        int status = 0;
        ::waitpid(child, &status, 0);
        for (const int descriptor : {toParent[0], toParent[1], toChild[0], toChild[1]}) {
            ::close(descriptor);
        }
        QCOMPARE(isRead, 0);
        QCOMPARE(limits.rlim_max, rlim_t{0});
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 0);
    }
};

ZARVO_TEST(ConfinementTest)
#include "tst_confinement.moc"
