// SPDX-License-Identifier: MIT
#include "client/terminal/eventwait.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QTest>

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class TestInterruption : public QObject
{
    Q_OBJECT

private slots:
    void signalEndsTheRunningWaitAndNoLaterOne()
    {
        int later = 0;
        const int status = inChild([&later] {
            const Interruption interruption;
            QTimer::singleShot(0, [] { ::raise(SIGTERM); });
            EventWait wait([] { return false; });
            if (wait.run(kNoDeadline) || !interruption.hasCaughtSignal()) {
                ::_exit(1);
            }
            EventWait closing([&later] { return later == 1; });
            QTimer::singleShot(10ms, closing.context(), [&later, &closing] {
                later = 1;
                closing.wake();
            });
            if (!closing.run(60s)) {
                ::_exit(2);
            }
        });
        QVERIFY2(WIFSIGNALED(status), qPrintable(QString::number(status)));
        QCOMPARE(WTERMSIG(status), SIGTERM);
    }

    void destructorRestoresTheDefaultHandlers()
    {
        {
            const Interruption interruption;
            QCOMPARE(Interruption::current(), &interruption);
            QVERIFY(!interruption.hasCaughtSignal());
        }
        QVERIFY(!Interruption::current());
        struct sigaction action = {};
        QCOMPARE(::sigaction(SIGINT, nullptr, &action), 0);
        QVERIFY(action.sa_handler == SIG_DFL);
    }

    void ignoredSignalsStayIgnored()
    {
        std::signal(SIGHUP, SIG_IGN);
        {
            const Interruption interruption;
            QCOMPARE(::raise(SIGHUP), 0);
            EventWait wait([] { return false; });
            QVERIFY(!wait.run(50ms));
            QVERIFY(!interruption.hasCaughtSignal());
        }
        struct sigaction action = {};
        QCOMPARE(::sigaction(SIGHUP, nullptr, &action), 0);
        std::signal(SIGHUP, SIG_DFL);
        QVERIFY(action.sa_handler == SIG_IGN);
    }

private:
    /** Runs @p work in a child process; returns the child's wait status. */
    static int inChild(const std::function<void()> &work)
    {
        const pid_t pid = ::fork();
        if (pid == 0) {
            work();
            ::_exit(0);
        }
        int status = -1;
        ::waitpid(pid, &status, 0);
        return status;
    }
};

ZARVO_TEST(TestInterruption)
#include "tst_interruption.moc"
