// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "engine/sessionloading.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <sys/resource.h>

using namespace Qt::StringLiterals;

class TestSessionLoading : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { logger.reset(); }
    void newRecordIsEmpty();
    void recordIsBuiltFromTheFiles();
    void nothingOfAnEarlierRecordIsKept();
    void nameIsItsFirstWord();
    void missingFileFailsTheLoad_data();
    void missingFileFailsTheLoad();
    void unreadableFileFailsTheLoad_data();
    void unreadableFileFailsTheLoad();
    void lackOfDescriptorsIsTransient();
    void filesAreReadInTheirOrder();
    void missingDirectoryIsNoSession();
    void fileInPlaceOfTheDirectoryIsNoSession();

private:
    QTemporaryDir folder;
    QString directory;
    std::unique_ptr<CollectingLogger> logger;
};

void TestSessionLoading::init()
{
    logger = std::make_unique<CollectingLogger>();
    directory = folder.filePath(u"session"_s);
    QDir(directory).removeRecursively();
    QVERIFY(QDir().mkpath(directory));
    putFile(directory + u"/display"_s, "104");
    putFile(directory + u"/window_mode"_s, "rootless");
    putFile(directory + u"/name"_s, "xterm");
    putFile(directory + u"/monitor_pid"_s, "4711");
}

void TestSessionLoading::newRecordIsEmpty()
{
    const Session session;
    QVERIFY(session.directory.isNull());
    QVERIFY(session.windowMode.isNull());
    QVERIFY(session.name.isNull());
    QVERIFY(session.started.isNull());
    QVERIFY(session.lastConnect.isNull());
    QVERIFY(session.lastDisconnect.isNull());
    QVERIFY(session.passwords.isEmpty());
    QCOMPARE(session.screenSize, QSize(-1, -1));
    QCOMPARE(session.exited, false);
    QCOMPARE(session.exitCode, -1);
}

void TestSessionLoading::recordIsBuiltFromTheFiles()
{
    Session session;
    QCOMPARE(loadSession(&session, directory), 0);
    QCOMPARE(session.directory, directory);
    QCOMPARE(session.display, 104);
    QCOMPARE(session.windowMode, u"rootless"_s);
    QCOMPARE(session.name, u"xterm"_s);
    QCOMPARE(session.monitorPid, 4711);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionLoading::nothingOfAnEarlierRecordIsKept()
{
    Session session;
    session.logStamp = QDateTime::currentDateTime();
    session.started = session.lastConnect = session.lastDisconnect = session.logStamp;
    session.clients = 3;
    session.passwords = QStringList{u"pw"_s};
    session.screenSize = QSize(1, 2);
    session.exited = true;
    session.exitCode = 5;
    session.broken = true;
    QCOMPARE(loadSession(&session, directory), 0);
    QCOMPARE(session.logStamp, QDateTime::fromMSecsSinceEpoch(0));
    QVERIFY(session.started.isNull());
    QVERIFY(session.lastConnect.isNull());
    QVERIFY(session.lastDisconnect.isNull());
    QCOMPARE(session.clients, 0);
    QCOMPARE(session.passwords, QStringList());
    QCOMPARE(session.screenSize, QSize(-1, -1));
    QCOMPARE(session.exited, false);
    QCOMPARE(session.exitCode, -1);
    QCOMPARE(session.broken, false);
}

void TestSessionLoading::nameIsItsFirstWord()
{
    putFile(directory + u"/name"_s, "my session");
    Session session;
    QCOMPARE(loadSession(&session, directory), 0);
    QCOMPARE(session.name, u"my"_s);
}

void TestSessionLoading::missingFileFailsTheLoad_data()
{
    QTest::addColumn<QString>("file");
    for (const char *file : {"display", "window_mode", "name", "monitor_pid"}) {
        QTest::newRow(file) << QString::fromLatin1(file);
    }
}

void TestSessionLoading::missingFileFailsTheLoad()
{
    QFETCH(QString, file);
    const QString path = directory + u'/' + file;
    QVERIFY(QFile::remove(path));
    Session session;
    bool isTransientError = false;
    session.directory = u"untouched"_s;
    QCOMPARE(loadSession(&session, directory, &isTransientError), ReadFailed);
    QVERIFY(!isTransientError);
    QCOMPARE(session.directory, u"untouched"_s);
    QCOMPARE(session.display, 0);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to open the file \"%1\": No such file or directory"_s.arg(path)});
}

void TestSessionLoading::unreadableFileFailsTheLoad_data()
{
    missingFileFailsTheLoad_data();
}

void TestSessionLoading::unreadableFileFailsTheLoad()
{
    QFETCH(QString, file);
    const QString path = directory + u'/' + file;
    putFile(path, " ");
    Session session;
    bool isTransientError = false;
    QCOMPARE(loadSession(&session, directory, &isTransientError), ReadFailed);
    QVERIFY(!isTransientError);
    QCOMPARE(session.directory, QString());
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to read from the file \"%1\": Unknown error"_s.arg(path)});
}

void TestSessionLoading::lackOfDescriptorsIsTransient()
{
    Session session;
    bool isTransientError = false;
    rlimit limit = {};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int code = loadSession(&session, directory, &isTransientError);
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    QCOMPARE(code, ReadFailed);
    QVERIFY(isTransientError);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to open the file \"%1/display\": Too many open files"_s.arg(directory)});
    isTransientError = false;
    QCOMPARE(loadSession(&session, directory, &isTransientError), 0);
    QVERIFY(!isTransientError);
}

void TestSessionLoading::filesAreReadInTheirOrder()
{
    const QStringList order = {u"display"_s, u"window_mode"_s, u"name"_s, u"monitor_pid"_s};
    for (const QString &file : order) {
        QVERIFY(QFile::remove(directory + u'/' + file));
    }
    for (const QString &file : order) {
        Session session;
        QCOMPARE(loadSession(&session, directory), ReadFailed);
        QCOMPARE(logger->takeLines(),
                 QStringList{
                     u"Warning: Failed to open the file \"%1/%2\": No such file or directory"_s.arg(directory, file)});
        putFile(directory + u'/' + file, "1");
    }
    Session session;
    QCOMPARE(loadSession(&session, directory), 0);
}

void TestSessionLoading::missingDirectoryIsNoSession()
{
    const QString missing = folder.filePath(u"missing"_s);
    Session session;
    QCOMPARE(loadSession(&session, missing), NotASession);
    QCOMPARE(session.directory, QString());
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: The directory \"%1\" does not exist"_s.arg(missing)});
}

void TestSessionLoading::fileInPlaceOfTheDirectoryIsNoSession()
{
    const QString file = folder.filePath(u"file"_s);
    putFile(file, "");
    Session session;
    QCOMPARE(loadSession(&session, file), NotASession);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: The directory \"%1\" does not exist"_s.arg(file)});
}

ZARVO_TEST(TestSessionLoading)

#include "tst_sessionloading.moc"
