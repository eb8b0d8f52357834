// SPDX-License-Identifier: MIT
#include "agent/applications/childwatcher.h"
#include "agent/applications/processtree.h"
#include "agent/applications/spawn.h"
#include "agent/display/xserver.h"
#include "agent/session/ending.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <chrono>

#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class EndingTest final : public QObject
{
    Q_OBJECT

private:
    QByteArray searchPath;
    std::unique_ptr<QTemporaryDir> directory;
    std::unique_ptr<TestLog> log;
    std::unique_ptr<ChildWatcher> watcher;
    std::unique_ptr<XServer> xServer;

    QString path(const QString &name) const { return directory->filePath(name); }

    [[nodiscard]] bool startXServer()
    {
        XServerSettings settings;
        settings.size = QSize(800, 600);
        settings.rfbSocket = path(u"rfb"_s);
        QString error;
        return writeScript(path(u"Xtigervnc"_s), "exec sleep 1000") && xServer->start(settings, &error);
    }

    /** Runs a script and waits until it has created the file "mark". */
    [[nodiscard]] bool startApplication(const QByteArray &script)
    {
        SpawnRequest request;
        request.program = "/bin/sh";
        request.arguments = {"sh", "-c", "cd " + QFile::encodeName(directory->path()) + "; " + script};
        request.environment = {"PATH=/usr/bin:/bin"};
        QString error;
        return spawnProcess(request, &error) != -1 &&
               QTest::qWaitFor([this] { return QFile::exists(path(u"mark"_s)); }, 10000);
    }

private slots:
    void initTestCase() { QCOMPARE(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }

    void init()
    {
        searchPath = qgetenv("PATH");
        directory = std::make_unique<QTemporaryDir>();
        qputenv("PATH", QFile::encodeName(directory->path()) + ":/usr/bin:/bin");
        log = std::make_unique<TestLog>();
        watcher = std::make_unique<ChildWatcher>();
        QString error;
        QVERIFY(watcher->start(&error));
        xServer = std::make_unique<XServer>(watcher.get());
    }

    void cleanup()
    {
        xServer.reset();
        watcher.reset();
        log.reset();
        qputenv("PATH", searchPath);
    }

    void sessionWithoutProcessesEnds()
    {
        Ending ending(xServer.get(), watcher.get());
        QSignalSpy finished(&ending, &Ending::finished);
        ending.start();
        QCOMPARE(finished.count(), 0);
        QTRY_COMPARE(finished.count(), 1);
    }

    void everythingEnds()
    {
        QVERIFY(startXServer());
        // Daemons in a session of their own, whose parents have ended.
        QVERIFY(startApplication("(setsid sh -c 'sleep 1000 & touch mark; sleep 1000' &) & sleep 1000"));
        Ending ending(xServer.get(), watcher.get(), {20s, 2s});
        QSignalSpy finished(&ending, &Ending::finished);
        ending.start();
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 15000);
        QVERIFY(!xServer->isRunning());
        QVERIFY(liveDescendants(::getpid(), 0).isEmpty());
        QVERIFY(log->lines.isEmpty());
    }

    void applicationsEndBeforeTheXServer()
    {
        QVERIFY(startXServer());
        QVERIFY(startApplication("trap 'sleep 0.3; kill -0 " + QByteArray::number(xServer->pid()) +
                                 " && touch served; exit' TERM; touch mark; while :; do sleep 0.05; done"));
        Ending ending(xServer.get(), watcher.get(), {20s, 2s});
        QSignalSpy finished(&ending, &Ending::finished);
        ending.start();
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 15000);
        QVERIFY(QFile::exists(path(u"served"_s)));
    }

    // The application starts a process on its own SIGTERM, so that one gets none with the others.
    void processStartedMeanwhileIsEnded()
    {
        QVERIFY(startXServer());
        QVERIFY(startApplication("trap 'sleep 1000 & exit' TERM; touch mark; while :; do sleep 0.05; done"));
        Ending ending(xServer.get(), watcher.get(), {60s, 2s});
        QSignalSpy finished(&ending, &Ending::finished);
        ending.start();
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 15000);
        QVERIFY(liveDescendants(::getpid(), 0).isEmpty());
    }

    void processThatIgnoresSigtermIsKilled()
    {
        QVERIFY(startXServer());
        QVERIFY(startApplication("trap '' TERM; touch mark; while :; do sleep 0.05; done"));
        Ending ending(xServer.get(), watcher.get(), {300ms, 20s});
        QSignalSpy finished(&ending, &Ending::finished);
        ending.start();
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 15000);
        QVERIFY(liveDescendants(::getpid(), 0).isEmpty());
    }

    // A busy machine may not let us run until both times are over.
    void processIsKilledEvenAfterTheDeadline()
    {
        QVERIFY(startXServer());
        QVERIFY(startApplication("trap '' TERM; touch mark; while :; do sleep 0.05; done"));
        constexpr EndingLimits kLimits = {50ms, 3s};
        Ending ending(xServer.get(), watcher.get(), kLimits);
        QSignalSpy finished(&ending, &Ending::finished);
        ending.start();
        QThread::msleep((kLimits.terminate + kLimits.kill + 50ms).count());
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 15000);
        QVERIFY(liveDescendants(::getpid(), 0).isEmpty());
        QVERIFY(log->lines.isEmpty());
    }
};

ZARVO_TEST(EndingTest)
#include "tst_ending.moc"
