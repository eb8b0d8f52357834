// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "live/sessionstore.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/live/livesession.h"
#include "tests/testmain.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <unistd.h>

using namespace Qt::StringLiterals;

class TestSessionScan : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void scanFindsRunningSessions();
    void scanFindsSessionsThatEndedWell();
    void scanIgnoresOtherNames_data();
    void scanIgnoresOtherNames();
    void scanIgnoresFiles();
    void scanIgnoresSessionsWithoutTheirFiles_data();
    void scanIgnoresSessionsWithoutTheirFiles();
    void scanIgnoresBrokenSessions();
    void scanTellsIdsApartByCase();
    void scanHoldsOnceForTwoDirectoriesOfOneId();
    void missingRootHasNoSessions();
    void storeIsCreatedWithoutTouchingTheDisk();

private:
    [[nodiscard]] QString newDirectory(int number)
    {
        return makeSessionDirectory(root, testId(number), displays.first());
    }

    ReservedDisplays displays;
    std::unique_ptr<QTemporaryDir> folder;
    QString root;
    std::unique_ptr<CollectingLogger> logger;
};

void TestSessionScan::init()
{
    logger = std::make_unique<CollectingLogger>();
    folder = std::make_unique<QTemporaryDir>();
    root = folder->filePath(u"sessions"_s);
    QVERIFY(QDir().mkdir(root));
}

void TestSessionScan::cleanup()
{
    QCOMPARE(TEST_heldSessions(), 0);
    logger.reset();
}

void TestSessionScan::scanFindsRunningSessions()
{
    const LiveSession live(root, testId(1), displays.first(), u"{\"Clients\":2,\"Passwords\":[\"pw\"]}"_s);
    const SessionStore found(root, 0, 0, QString());
    QCOMPARE(found.sessionIds(), QStringList{testId(1)});
    QVERIFY(!found.isBusy(testId(1)));
    QCOMPARE(TEST_heldSessions(), 1);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionScan::scanFindsSessionsThatEndedWell()
{
    const QString directory = newDirectory(1);
    putFile(directory + u"/monitor_pid"_s, QByteArray::number(::getpid()));
    putFile(directory + u"/server_exit"_s, "0");
    SessionStore found(root, 0, 0, QString());
    QCOMPARE(found.sessionIds(), QStringList{testId(1)});
    Session *session = nullptr;
    QCOMPARE(found.acquire(testId(1), session), SessionOk);
    QCOMPARE(session->directory, directory);
    QCOMPARE(session->windowMode, u"desktop"_s);
    QCOMPARE(session->name, u"xterm"_s);
    QCOMPARE(session->display, displays.first());
    QVERIFY(session->exited);
    QVERIFY(QFileInfo::exists(directory));
}

void TestSessionScan::scanIgnoresOtherNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("no prefix") << testId(1);
    QTest::newRow("other prefix") << u"c-"_s + testId(1);
    QTest::newRow("31 digits") << u"C-"_s + testId(1).mid(1);
    QTest::newRow("33 digits") << u"C-0"_s + testId(1);
    QTest::newRow("no digit") << u"C-g"_s + testId(1).mid(1);
    QTest::newRow("hidden") << u".C-"_s + testId(1);
    QTest::newRow("something behind") << u"C-"_s + testId(1) + u"-old"_s;
}

void TestSessionScan::scanIgnoresOtherNames()
{
    QFETCH(QString, name);
    const QString directory = newDirectory(1);
    putFile(directory + u"/monitor_pid"_s, QByteArray::number(::getpid()));
    putFile(directory + u"/server_exit"_s, "0");
    QCOMPARE(SessionStore(root, 0, 0, QString()).sessionIds().size(), 1);
    QVERIFY(QFile::rename(directory, root + u'/' + name));

    QCOMPARE(SessionStore(root, 0, 0, QString()).sessionIds(), QStringList());
    QVERIFY(QFileInfo::exists(root + u'/' + name + u"/display"_s));
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionScan::scanIgnoresFiles()
{
    putFile(sessionDirectory(root, testId(1)), "content");
    const SessionStore found(root, 0, 0, QString());
    QCOMPARE(found.sessionIds(), QStringList());
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionScan::scanIgnoresSessionsWithoutTheirFiles_data()
{
    QTest::addColumn<QString>("file");
    for (const char *file : {"display", "window_mode", "name", "monitor_pid", "server_exit"}) {
        QTest::newRow(file) << QString::fromLatin1(file);
    }
}

void TestSessionScan::scanIgnoresSessionsWithoutTheirFiles()
{
    QFETCH(QString, file);
    for (const int number : {1, 2}) {
        const QString directory = newDirectory(number);
        putFile(directory + u"/monitor_pid"_s, QByteArray::number(::getpid()));
        putFile(directory + u"/server_exit"_s, "0");
    }
    QVERIFY(QFile::remove(sessionDirectory(root, testId(1)) + u'/' + file));
    {
        const SessionStore found(root, 0, 0, QString());
        QCOMPARE(found.sessionIds(), QStringList{testId(2)});
        QCOMPARE(TEST_heldSessions(), 1);
    }
    QVERIFY(QFileInfo::exists(sessionDirectory(root, testId(1))));
}

void TestSessionScan::scanIgnoresBrokenSessions()
{
    const QString directory = newDirectory(1);
    putFile(directory + u"/monitor_pid"_s, QByteArray::number(::getpid()));
    putFile(directory + u"/server_exit"_s, "no number");
    QCOMPARE(SessionStore(root, 0, 0, QString()).sessionIds(), QStringList());
    QVERIFY(QFileInfo::exists(directory));
}

void TestSessionScan::scanTellsIdsApartByCase()
{
    const QString upper = testId(0xA).toUpper();
    for (const QString &id : {testId(0xa), upper}) {
        const QString directory = makeSessionDirectory(root, id, displays.first());
        putFile(directory + u"/monitor_pid"_s, QByteArray::number(::getpid()));
        putFile(directory + u"/server_exit"_s, "0");
    }
    QCOMPARE(SessionStore(root, 0, 0, QString()).sessionIds(), (QStringList{upper, testId(0xa)}));
}

/** The id is read up to the first dot of the name, so two directories may have the same id. */
void TestSessionScan::scanHoldsOnceForTwoDirectoriesOfOneId()
{
    for (const QString &suffix : {QString(), u".copy"_s}) {
        const QString directory = newDirectory(1);
        putFile(directory + u"/monitor_pid"_s, QByteArray::number(::getpid()));
        putFile(directory + u"/server_exit"_s, "0");
        if (suffix.isEmpty()) {
            QVERIFY(QFile::rename(directory, directory + u".copy"_s));
        }
    }
    const int heldBefore = TEST_heldSessions();
    {
        const SessionStore found(root, 0, 0, QString());
        QCOMPARE(found.sessionIds(), QStringList{testId(1)});
    }
    const int leaked = TEST_heldSessions() - heldBefore;
    for (int hold = 0; hold < leaked; ++hold) {
        releaseSession();
    }
    QCOMPARE(leaked, 0);
}

void TestSessionScan::missingRootHasNoSessions()
{
    SessionStore found(folder->filePath(u"missing"_s), 0, 0, QString());
    QCOMPARE(found.sessionIds(), QStringList());
    QList<SessionInfo> list;
    QCOMPARE(found.listLocalSessions(list), SessionOk);
    QVERIFY(list.isEmpty());
}

void TestSessionScan::storeIsCreatedWithoutTouchingTheDisk()
{
    const SessionStore found(folder->filePath(u"missing"_s), 0, 0, QString());
    QVERIFY(!QFileInfo::exists(folder->filePath(u"missing"_s)));
}

ZARVO_TEST(TestSessionScan)
#include "tst_sessionscan.moc"
