// SPDX-License-Identifier: MIT
#include "agent/applications/childwatcher.h"
#include "agent/display/xserver.h"
#include "tests/agent/fakebackend.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace Qt::StringLiterals;

/** The process is a script, and the test serves the screen. */
class XServerTest final : public QObject
{
    Q_OBJECT

private:
    QByteArray searchPath;
    std::unique_ptr<QTemporaryDir> directory;
    std::unique_ptr<ChildWatcher> watcher;

    QString path(const QString &name) const { return directory->filePath(name); }

    XServerSettings settings() const
    {
        XServerSettings result;
        result.display = 7;
        result.size = QSize(800, 600);
        result.title = u"a title"_s;
        result.authorityEntries = "entries";
        result.rfbSocket = path(u"rfb"_s);
        result.socketFolder = path(u"displays"_s);
        return result;
    }

    [[nodiscard]] bool install(const QByteArray &script) { return writeScript(path(u"Xtigervnc"_s), script); }

private slots:
    void init()
    {
        searchPath = qgetenv("PATH");
        directory = std::make_unique<QTemporaryDir>();
        qputenv("PATH", QFile::encodeName(directory->path()) + ":/usr/bin:/bin");
        watcher = std::make_unique<ChildWatcher>();
        QString error;
        QVERIFY(watcher->start(&error));
    }

    void cleanup()
    {
        watcher.reset();
        qputenv("PATH", searchPath);
    }

    void readyWhenTheScreenIsServed()
    {
        QVERIFY(install("exec sleep 1000"));
        XServer server(watcher.get());
        QSignalSpy ready(&server, &XServer::ready);
        QSignalSpy ended(&server, &XServer::ended);
        QString error;
        QVERIFY(server.start(settings(), &error));
        QVERIFY(server.isRunning());
        QVERIFY(!QTest::qWaitFor([&ready] { return ready.count() > 0; }, 100));
        FakeBackend screen(FakeBackend::Manner::Echo);
        QVERIFY(screen.listen(path(u"rfb"_s)));
        QTRY_COMPARE(ready.count(), 1);
        server.stop();
        QTRY_COMPARE(ended.count(), 1);
        QCOMPARE(ended.first().first().toString(), u"signal 15"_s);
        QVERIFY(!server.isRunning());
        QCOMPARE(ready.count(), 1);
    }

    void argumentsAndAuthorityReachTheProcess()
    {
        QVERIFY(install("for argument; do echo \"[$argument]\" >> " + QFile::encodeName(path(u"seen"_s)) +
                        "; done; cat /proc/self/fd/4 >> " + QFile::encodeName(path(u"seen"_s))));
        XServer server(watcher.get());
        QSignalSpy ended(&server, &XServer::ended);
        QString error;
        QVERIFY(server.start(settings(), &error));
        QTRY_COMPARE(ended.count(), 1);
        const QByteArray seen = contentOf(path(u"seen"_s));
        QVERIFY(seen.startsWith("[:7]\n[-geometry]\n[800x600]\n[-depth]\n[24]\n[-auth]\n[/proc/self/fd/4]\n"
                                "[-desktop]\n[a title]\n[-rfbport]\n[-1]\n"));
        QVERIFY(seen.endsWith("\nentries"));
        QVERIFY(!seen.contains("-displayfd"));
    }

    void endIsReportedWithItsReason_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QString>("reason");
        QTest::newRow("exit code") << QByteArray("exit 5") << u"exit code 5"_s;
        QTest::newRow("signal") << QByteArray("kill -9 $$") << u"signal 9"_s;
    }

    void endIsReportedWithItsReason()
    {
        QFETCH(QByteArray, script);
        QVERIFY(install(script));
        XServer server(watcher.get());
        QSignalSpy ended(&server, &XServer::ended);
        QString error;
        QVERIFY(server.start(settings(), &error));
        QTRY_COMPARE(ended.count(), 1);
        QTEST(ended.first().first().toString(), "reason");
    }

    void lastLinesAreKept()
    {
        QVERIFY(
            install("echo; for i in $(seq 100); do echo \"line $i\" >&2; done; head -c 1000 /dev/zero | tr '\\0' x; "
                    "echo; exit 1"));
        XServer server(watcher.get());
        QSignalSpy ended(&server, &XServer::ended);
        QString error;
        QVERIFY(server.start(settings(), &error));
        QTRY_COMPARE(ended.count(), 1);
        QCOMPARE(server.lastLines().size(), 20);
        QCOMPARE(server.lastLines().first(), u"line 82"_s);
        QCOMPARE(server.lastLines()[18], u"line 100"_s);
        QCOMPARE(server.lastLines().last(), QString(200, u'x'));
    }

    void processThatIgnoresTheRequestIsKilled()
    {
        QVERIFY(
            install("trap '' TERM; touch " + QFile::encodeName(path(u"trapped"_s)) + "; while :; do sleep 0.1; done"));
        XServer server(watcher.get());
        QSignalSpy ended(&server, &XServer::ended);
        QString error;
        QVERIFY(server.start(settings(), &error));
        QTRY_VERIFY(QFile::exists(path(u"trapped"_s)));
        server.stop();
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 1, 20000);
        QCOMPARE(ended.first().first().toString(), u"signal 9"_s);
    }

    void missingProgramIsReported()
    {
        qputenv("PATH", QFile::encodeName(directory->path()));
        XServer server(watcher.get());
        QString error;
        QVERIFY(!server.start(settings(), &error));
        QVERIFY(error.contains(u"Xtigervnc"_s));
        QVERIFY(!server.isRunning());
    }

    void staleSocketIsNotTakenForTheNewOne()
    {
        FakeBackend old(FakeBackend::Manner::Echo);
        QVERIFY(old.listen(path(u"rfb"_s)));
        QVERIFY(install("exec sleep 1000"));
        XServer server(watcher.get());
        QSignalSpy ready(&server, &XServer::ready);
        QSignalSpy ended(&server, &XServer::ended);
        QString error;
        QVERIFY(server.start(settings(), &error));
        QVERIFY(!QTest::qWaitFor([&ready] { return ready.count() > 0; }, 200));
        server.stop();
        QTRY_COMPARE(ended.count(), 1);
    }
};

ZARVO_TEST(XServerTest)
#include "tst_xserver.moc"
