// SPDX-License-Identifier: MIT
#include "client/reach/childrun.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QTest>

#include <cerrno>

#include <signal.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class TestChildRun : public QObject
{
    Q_OBJECT

private slots:
    void outputAndExitCodeAreKept()
    {
        ChildRun child;
        QVERIFY(child.run(shell("echo out; echo err >&2; exit 3"), 30s));
        QCOMPARE(child.exitCode(), 3);
        QCOMPARE(child.output(), "out\n"_ba);
        QCOMPARE(child.errorOutput(), u"err\n"_s);
        QVERIFY(!child.timedOut());
    }

    void argumentsReachTheProgramUnchanged()
    {
        ChildRun child;
        QVERIFY(child.run({u"printf"_s, u"%s|"_s, u"a b"_s, u"$HOME"_s, u""_s}, 30s));
        QCOMPARE(child.output(), "a b|$HOME||"_ba);
    }

    void inputIsEmpty()
    {
        ChildRun child;
        QVERIFY(child.run({u"cat"_s}, 30s));
        QCOMPARE(child.output(), QByteArray());
        QCOMPARE(child.exitCode(), 0);
    }

    void keptOutputIsBounded()
    {
        ChildRun child;
        QVERIFY(child.run(shell("head -c 3000000 /dev/zero; head -c 3000000 /dev/zero >&2"), 30s));
        QCOMPARE(child.output().size(), 1024 * 1024);
        QCOMPARE(child.errorOutput().size(), 1024 * 1024);
        QCOMPARE(child.exitCode(), 0); // the rest is read as well, else the child would block
    }

    void childIsKilledAfterTheTimeout()
    {
        int pid = 0;
        // On a loaded machine the child may not have written its pid before the timeout, so try longer ones.
        for (auto time = 500ms; pid == 0 && time < 60s; time *= 2) {
            ChildRun child;
            QVERIFY(!child.run(shell("trap '' TERM; echo $$; while :; do sleep 1; done"), time));
            QVERIFY(child.timedOut());
            QVERIFY2(child.problem().contains("did not end in time"_L1), qPrintable(child.problem()));
            pid = child.output().trimmed().toInt();
        }
        QVERIFY(pid > 0);
        QTRY_VERIFY(::kill(pid, 0) == -1 && errno == ESRCH);
    }

    void crashIsAFailure()
    {
        ChildRun child;
        QVERIFY(!child.run(shell("kill -KILL $$"), 30s));
        QVERIFY(!child.timedOut());
        QCOMPARE(child.problem(), u"\"sh\" crashed"_s);
    }

    void missingProgramIsAFailure()
    {
        QElapsedTimer elapsed;
        elapsed.start();
        ChildRun child;
        QVERIFY(!child.run({u"nothing-of-the-kind"_s}, 30s));
        QVERIFY(!child.timedOut());
        QCOMPARE(child.problem(), u"\"nothing-of-the-kind\" does not start"_s);
        QVERIFY(elapsed.elapsed() < 20000); // reported at once, not after the timeout
    }

private:
    static QStringList shell(const char *script) { return {u"sh"_s, u"-c"_s, QString::fromLatin1(script)}; }
};

ZARVO_TEST(TestChildRun)
#include "tst_childrun.moc"
