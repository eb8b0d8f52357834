// SPDX-License-Identifier: MIT
#include "support/processstat.h"
#include "tests/testmain.h"

#include <QTest>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

class ProcessStatTest final : public QObject
{
    Q_OBJECT

private slots:
    void lineIsParsed_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<bool>("hasEnded");
        const auto row = [](const char *title, const char *line, const char *name, bool hasEnded) {
            QTest::newRow(title) << QByteArray(line) << QByteArray(name) << hasEnded;
        };
        row("sleeping", "12 (cat) S 7 12 12 0\n", "cat", false);
        row("zombie", "12 (cat) Z 7 12 12 0\n", "cat", true);
        row("dead", "12 (cat) X 7 12 12 0\n", "cat", true);
        row("no name", "12 () R 7 12 12 0\n", "", false);
        row("parentheses", "12 (a) Z 1 (b) S 7 12 12 0\n", "a) Z 1 (b", false);
        row("blanks", "12 ( a b ) S 7 12 12 0\n", " a b ", false);
        row("line break", "12 (a\nb) S 7 12 12 0\n", "a\nb", false);
    }

    void lineIsParsed()
    {
        QFETCH(const QByteArray, line);
        const std::optional<ProcessStat> stat = parseProcessStat(line);
        QVERIFY(stat);
        QTEST(stat->name, "name");
        QTEST(stat->hasEnded, "hasEnded");
        QCOMPARE(stat->parent, 7);
    }

    void otherLinesAreNotParsed()
    {
        for (const char *line : {"", "12", "12 (cat", "12 cat) S 7", "12 )cat( S 7", "12 (cat)", "12 (cat) S"}) {
            QVERIFY2(!parseProcessStat(line), line);
        }
    }

    void ownProcessIsRead()
    {
        ::prctl(PR_SET_NAME, ") Z 1 (");
        const std::optional<ProcessStat> stat = readProcessStat(::getpid());
        ::prctl(PR_SET_NAME, "a test");
        QVERIFY(stat);
        QCOMPARE(stat->name, QByteArray(") Z 1 ("));
        QCOMPARE(stat->parent, ::getppid());
        QVERIFY(!stat->hasEnded);
    }

    void zombieHasEnded()
    {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(0);
        }
        siginfo_t end = {};
        QCOMPARE(::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT), 0);
        const std::optional<ProcessStat> zombie = readProcessStat(child);
        QCOMPARE(::waitpid(child, nullptr, 0), child);
        QVERIFY(zombie && zombie->hasEnded);
        QCOMPARE(zombie->parent, ::getpid());
        QVERIFY(!readProcessStat(child));
    }
};

ZARVO_TEST(ProcessStatTest)
#include "tst_processstat.moc"
