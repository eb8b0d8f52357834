// SPDX-License-Identifier: MIT
#include "agent/applications/sessionenvironment.h"
#include "agent/applications/spawn.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <array>
#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class SpawnTest final : public QObject
{
    Q_OBJECT

private:
    struct Outcome
    {
        QByteArray output;
        int status = -1;
    };

    /** Runs the request and waits until it ends. There is no deadline, because all children here end by themselves. */
    static Outcome run(SpawnRequest request)
    {
        std::array<int, 2> ends = {};
        Outcome outcome;
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            return outcome;
        }
        request.output = ends[1];
        QString error;
        const pid_t pid = spawnProcess(request, &error);
        ::close(ends[1]);
        std::array<char, 4096> buffer = {};
        for (ssize_t length = 1; length > 0;) {
            length = ::read(ends[0], buffer.data(), buffer.size());
            outcome.output.append(buffer.data(), qMax(length, ssize_t{0}));
        }
        ::close(ends[0]);
        if (pid != -1) {
            ::waitpid(pid, &outcome.status, 0);
        }
        return outcome;
    }

    static SpawnRequest shell(const QByteArray &script)
    {
        SpawnRequest request;
        request.program = "/bin/sh";
        request.arguments = {"sh", "-c", script};
        request.environment = {"PATH=/usr/bin:/bin"};
        return request;
    }

private slots:
    void argumentsAndEnvironmentReachTheProgram()
    {
        SpawnRequest request = shell("echo \"$0|$1|$NAME|$HOME\"; echo error >&2; exit 3");
        request.arguments += {"zero", "a  b"};
        request.environment.append("NAME=value");
        const Outcome outcome = run(request);
        QCOMPARE(outcome.output, QByteArray("zero|a  b|value|\nerror\n"));
        QCOMPARE(exitStatusText(outcome.status), u"exit code 3"_s);
    }

    void signalIsReported() { QCOMPARE(exitStatusText(run(shell("kill -9 $$")).status), u"signal 9"_s); }

    void childReportsThatItsProgramCannotBeRun()
    {
        SpawnRequest request = shell({});
        request.program = "/nowhere/program";
        const Outcome outcome = run(request);
        QCOMPARE(outcome.output, QByteArray("Failed to run the program: No such file or directory\n"));
        QVERIFY(WIFEXITED(outcome.status));
        QCOMPARE(WEXITSTATUS(outcome.status), kProgramNotRun);
    }

    void signalsHaveTheirDefaults()
    {
        sigset_t blocked;
        ::sigfillset(&blocked);
        sigset_t before;
        ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
        const auto oldHandler = ::signal(SIGUSR1, SIG_IGN);
        const Outcome outcome = run(shell("grep -E 'Sig(Blk|Ign)' /proc/self/status | tr -d '[:space:]'"));
        ::signal(SIGUSR1, oldHandler);
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        const QByteArray none(16, '0');
        QCOMPARE(outcome.output, "SigBlk:" + none + "SigIgn:" + none);
    }

    void noOtherDescriptorIsInherited()
    {
        const int leaked = ::open("/dev/null", O_RDONLY); // without close-on-exec, as a library may do
        // Without a pipe, because the shell would hold an end of it for a moment. ":" comes last, because otherwise the
        // shell would exec ls, which holds the directory open.
        const Outcome without = run(shell("ls /proc/$$/fd; :"));
        QCOMPARE(without.output, QByteArray("0\n1\n2\n"));
        SpawnRequest request = shell("ls /proc/$$/fd; readlink /proc/$$/fd/3 /proc/$$/fd/0");
        const int kept = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
        request.inherited = {kept};
        QCOMPARE(run(request).output, QByteArray("0\n1\n2\n3\n/dev/zero\n/dev/null\n"));
        ::close(kept);
        ::close(leaked);
    }

    void inheritedDescriptorsMayHaveEachOthersNumbers()
    {
        const int savedThree = ::fcntl(3, F_DUPFD_CLOEXEC, 10);
        const int savedFour = ::fcntl(4, F_DUPFD_CLOEXEC, 10);
        const int zero = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
        const int full = ::open("/dev/full", O_RDONLY | O_CLOEXEC);
        const int farZero = ::fcntl(zero, F_DUPFD_CLOEXEC, 10);
        const int farFull = ::fcntl(full, F_DUPFD_CLOEXEC, 10);
        ::dup3(farZero, 3, O_CLOEXEC);
        ::dup3(farFull, 4, O_CLOEXEC);
        const QByteArray names = "readlink /proc/$$/fd/3 /proc/$$/fd/4";
        SpawnRequest straight = shell(names);
        straight.inherited = {3, 4};
        SpawnRequest crossed = shell(names);
        crossed.inherited = {4, 3};
        const Outcome straightOutcome = run(straight);
        const Outcome crossedOutcome = run(crossed);
        for (const auto &[saved, number] : {std::pair(savedThree, 3), std::pair(savedFour, 4)}) {
            if (saved == -1) {
                ::close(number);
            } else {
                ::dup3(saved, number, O_CLOEXEC);
                ::close(saved);
            }
        }
        for (const int descriptor : {zero, full, farZero, farFull}) {
            if (descriptor > 4) {
                ::close(descriptor);
            }
        }
        QCOMPARE(straightOutcome.output, QByteArray("/dev/zero\n/dev/full\n"));
        QCOMPARE(crossedOutcome.output, QByteArray("/dev/full\n/dev/zero\n"));
    }

    void childIsToldItsPid()
    {
        SpawnRequest request = shell("echo $OWN_PID $$");
        request.pidVariable = "OWN_PID";
        const QList<QByteArray> pids = run(request).output.trimmed().split(' ');
        QCOMPARE(pids.size(), 2);
        QVERIFY(pids[0].toInt() > 0);
        QCOMPARE(pids[0], pids[1]);
    }

    void childHasItsOwnSessionMaskAndDirectory()
    {
        SpawnRequest request = shell("umask; pwd; test $(cut -d' ' -f6 /proc/$$/stat) = $$ && echo leader");
        request.fileCreationMask = 027;
        request.workingDirectory = "/usr";
        QCOMPARE(run(request).output, QByteArray("0027\n/usr\nleader\n"));
        request.workingDirectory = "/nowhere";
        const QByteArray here = QFile::encodeName(QDir::currentPath());
        QCOMPARE(run(request).output, "0027\n" + here + "\nleader\n");
    }

    void childEndsWithItsParent()
    {
        std::array<int, 2> ends = {};
        QCOMPARE(::pipe2(ends.data(), O_CLOEXEC), 0);
        const pid_t parent = ::fork();
        if (parent == 0) {
            SpawnRequest request = shell("exec sleep 1000");
            request.output = ends[1];
            QString error;
            ::_exit(spawnProcess(request, &error) == -1 ? 1 : 0);
        }
        ::close(ends[1]);
        char byte = 0;
        QCOMPARE(::read(ends[0], &byte, 1),
                 ssize_t{0}); // the end of the stream, because no process holds the pipe any more
        ::close(ends[0]);
        int status = -1;
        QCOMPARE(::waitpid(parent, &status, 0), parent);
        QCOMPARE(status, 0);
    }
};

ZARVO_TEST(SpawnTest)
#include "tst_spawn.moc"
