// SPDX-License-Identifier: MIT
#include "agent/applications/processtree.h"
#include "tests/testmain.h"

#include <QTest>

#include <array>
#include <csignal>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

class ProcessTreeTest final : public QObject
{
    Q_OBJECT

private slots:
    void liveDescendantsAreFound()
    {
        // The child forks a grandchild and sends us its pid. The name looks like the fields that follow a name in
        // /proc.
        std::array<int, 2> ends = {};
        QCOMPARE(::pipe2(ends.data(), O_CLOEXEC), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_NAME, ") Z 1 (");
            const pid_t grandchild = ::fork();
            if (grandchild != 0) {
                [[maybe_unused]] const ssize_t written = ::write(ends[1], &grandchild, sizeof grandchild);
            }
            for (;;) {
                ::pause();
            }
        }
        ::close(ends[1]);
        pid_t grandchild = 0;
        QCOMPARE(::read(ends[0], &grandchild, sizeof grandchild), ssize_t{sizeof grandchild});
        ::close(ends[0]);

        QCOMPARE(liveDescendants(::getpid(), 0), (QList<pid_t>{child, grandchild}));
        QCOMPARE(liveDescendants(::getpid(), grandchild), QList<pid_t>{child});
        QVERIFY(liveDescendants(::getpid(), child).isEmpty());
        QCOMPARE(liveChildren(), QSet<pid_t>{child});
        QCOMPARE(liveDescendants(child, 0), QList<pid_t>{grandchild});

        // Zombies are not live.
        ::kill(grandchild, SIGKILL);
        QTRY_COMPARE(liveDescendants(::getpid(), 0), QList<pid_t>{child});
        ::kill(child, SIGKILL);
        QTRY_VERIFY(liveDescendants(::getpid(), 0).isEmpty());
        QCOMPARE(::waitpid(child, nullptr, 0), child);
    }
};

ZARVO_TEST(ProcessTreeTest)
#include "tst_processtree.moc"
