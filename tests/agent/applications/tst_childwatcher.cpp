// SPDX-License-Identifier: MIT
#include "agent/applications/childwatcher.h"
#include "tests/testmain.h"

#include <QTest>

#include <csignal>
#include <map>

#include <sys/wait.h>
#include <unistd.h>

class ChildWatcherTest final : public QObject
{
    Q_OBJECT

private slots:
    void everyChildIsReported()
    {
        // As some parents leave it. The kernel would then reap our children.
        ::signal(SIGCHLD, SIG_IGN);
        ChildWatcher watcher;
        QString error;
        QVERIFY(watcher.start(&error));
        std::map<pid_t, int> ended;
        connect(&watcher, &ChildWatcher::ended, this, [&ended](pid_t pid, int status) { ended[pid] = status; });

        // Many at once, because the kernel merges their signals.
        std::map<pid_t, int> expected;
        for (int code = 0; code < 20; ++code) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::_exit(code);
            }
            expected[pid] = code << 8;
        }
        QTRY_COMPARE(ended.size(), expected.size());
        QVERIFY(ended == expected);
        QCOMPARE(::waitpid(-1, nullptr, WNOHANG), pid_t{-1});
    }

    void signalMaskIsRestored()
    {
        sigset_t set;
        ::sigemptyset(&set);
        ::sigaddset(&set, SIGCHLD);
        sigset_t before;
        ::pthread_sigmask(SIG_UNBLOCK, &set, &before);
        {
            ChildWatcher watcher;
            QString error;
            QVERIFY(watcher.start(&error));
        }
        sigset_t after;
        ::pthread_sigmask(SIG_SETMASK, &before, &after);
        QCOMPARE(::sigismember(&after, SIGCHLD), 0);
    }
};

ZARVO_TEST(ChildWatcherTest)
#include "tst_childwatcher.moc"
