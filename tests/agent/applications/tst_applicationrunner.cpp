// SPDX-License-Identifier: MIT
#include "agent/applications/applicationrunner.h"
#include "agent/applications/childwatcher.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class ApplicationRunnerTest final : public QObject
{
    Q_OBJECT

private slots:
    void applicationsRunAndTheirEndsAreLogged()
    {
        TestLog log;
        ChildWatcher watcher;
        QString error;
        QVERIFY(watcher.start(&error));
        const QTemporaryDir directory;
        const QString logPath = directory.filePath(u"app_log"_s);
        ApplicationRunner runner({{"NAME=value"}, 022, QFile::encodeName(directory.path()), logPath}, &watcher);

        QVERIFY(runner.run("echo \"$NAME\" 'a  b' > printed; pwd; exit 3", &error));
        QTRY_COMPARE(log.lines.size(), 2);
        QVERIFY(log.lines[0].startsWith(u"Info: Started process "_s));
        QVERIFY(log.lines[1].endsWith(u"ended with exit code 3"_s));
        QCOMPARE(contentOf(directory.filePath(u"printed"_s)), QByteArray("value a  b\n"));
        QCOMPARE(contentOf(logPath), QFile::encodeName(directory.path()) + '\n');

        QVERIFY(runner.runProgram({"/bin/echo", "$NAME"}, &error) > 0);
        QTRY_COMPARE(log.lines.size(), 4);
        QVERIFY(contentOf(logPath).endsWith("\n$NAME\n")); // after the output of the first one
    }

    void outputFileThatCannotBeOpenedIsReported()
    {
        TestLog log;
        ChildWatcher watcher;
        QString error;
        QVERIFY(watcher.start(&error));
        ApplicationRunner runner({{}, 022, {}, u"/nowhere/app_log"_s}, &watcher);
        QVERIFY(!runner.run("true", &error));
        QVERIFY(error.contains(u"/nowhere/app_log"_s));
        QVERIFY(log.lines.isEmpty());
    }
};

ZARVO_TEST(ApplicationRunnerTest)
#include "tst_applicationrunner.moc"
