// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "live/sessionstore.h"
#include "tests/helpers/agentprocess.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
#include "tests/live/sessionlists.h"
#include "tests/testmain.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <memory>

#include <unistd.h>

using namespace Qt::StringLiterals;

class TestSessionStore : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void refreshListsRunningSessions();
    void refreshTakesOverWhatTheAgentTells();
    void refreshRemovesSessionsThatEndedWell();
    void refreshKeepsTheDirectoryOfSessionsThatFailed_data();
    void refreshKeepsTheDirectoryOfSessionsThatFailed();
    void refreshWarnsAboutADirectoryThatStays();
    void refreshDropsBrokenSessions();
    void refreshReleasesEverySession();
    void busySessionIsListedAsBefore();
    void busySessionThatIsNewIsNotListed();
    void busySessionIsNotListedAfterItsRemoval();
    void busySessionIsNotListedAsARemovedOne();
    void freeSessionIsListedAsItIs();

    void listingOfNothingIsEmpty();
    void listingIsInTheOrderOfIds();
    void listingDoesNotRefresh();
    void listingWaitsForABusySession();
    void listingFailsWhenASessionIsRemoved_data();
    void listingFailsWhenASessionIsRemoved();

    void peerIsForgotten();
    void refreshListsPeersFirst();
    void refreshForgetsExpiredPeers();
    void listingKeepsExpiredPeers();
    void replacedListHasANewExpiry();
    void listingPutsPeersFirst();
    void localListingHasNoPeers();

private:
    /** Adds a free session. With the pid of the test itself its agent counts as ended. */
    Session *add(const QString &id, const QString &directory = {}, qint32 monitorPid = 0);
    [[nodiscard]] QStringList refreshedIds();
    [[nodiscard]] QString newDirectory(int number)
    {
        return makeSessionDirectory(root, testId(number), displays.first());
    }

    ReservedDisplays displays;
    std::unique_ptr<QTemporaryDir> folder;
    QString root;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionStore> store;
};

void TestSessionStore::init()
{
    logger = std::make_unique<CollectingLogger>();
    folder = std::make_unique<QTemporaryDir>();
    root = folder->filePath(u"sessions"_s);
    QVERIFY(QDir().mkdir(root));
    store = std::make_unique<SessionStore>(root, quint16(0), quint16(0), u"zarvo://here:1"_s);
}

void TestSessionStore::cleanup()
{
    store.reset();
    QCOMPARE(TEST_heldSessions(), 0);
    logger.reset();
}

Session *TestSessionStore::add(const QString &id, const QString &directory, qint32 monitorPid)
{
    auto session = std::make_unique<Session>();
    Session *record = session.get();
    record->directory = directory;
    record->monitorPid = monitorPid;
    record->display = displays.first();
    record->name = u"name"_s;
    store->addSession(id, std::move(session));
    store->release(id);
    return record;
}

QStringList TestSessionStore::refreshedIds()
{
    QList<SessionInfo> list;
    store->refreshAll(list);
    return idsOf(list);
}

void TestSessionStore::refreshListsRunningSessions()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    QList<SessionInfo> list;
    store->refreshAll(list);
    QCOMPARE(list.size(), 1);
    QCOMPARE(list.constFirst().id, testId(1));
    QCOMPARE(list.constFirst().location, QUrl(u"zarvo://here:1"_s));
    QCOMPARE(list.constFirst().name, u"name"_s);
    QCOMPARE(list.constFirst().permissions, (QStringList{u"connect"_s, u"terminate"_s}));
}

void TestSessionStore::refreshTakesOverWhatTheAgentTells()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    AgentSocket socket(agentSocketPath(displays.first()), R"({"Clients":0,"Passwords":["pw"]})");
    QList<SessionInfo> list;
    store->refreshAll(list);
    QCOMPARE(list.constFirst().permissions, (QStringList{u"retry"_s, u"terminate"_s}));

    socket.setState(R"({"Clients":1,"Passwords":[],"LastConnect":"2024-01-02T03:04:05"})");
    store->refreshAll(list);
    QCOMPARE(list.size(), 1);
    QCOMPARE(list.constFirst().permissions, (QStringList{u"disconnect"_s, u"terminate"_s}));
    QCOMPARE(list.constFirst().lastConnect, QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5)));
}

void TestSessionStore::refreshRemovesSessionsThatEndedWell()
{
    const QString directory = newDirectory(1);
    putFile(directory + u"/server_exit"_s, "0");
    add(testId(1), directory, ::getpid());
    QCOMPARE(refreshedIds(), QStringList());
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(testId(1)));
    QVERIFY(!QFileInfo::exists(directory));
    QVERIFY(QFileInfo::exists(root));
    QCOMPARE(TEST_heldSessions(), 0);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionStore::refreshKeepsTheDirectoryOfSessionsThatFailed_data()
{
    QTest::addColumn<QByteArray>("exitCode");
    for (const char *exitCode : {"1", "-1", "255"}) {
        QTest::newRow(exitCode) << QByteArray(exitCode);
    }
}

void TestSessionStore::refreshKeepsTheDirectoryOfSessionsThatFailed()
{
    QFETCH(QByteArray, exitCode);
    const QString directory = newDirectory(1);
    putFile(directory + u"/server_exit"_s, exitCode);
    add(testId(1), directory, ::getpid());
    QCOMPARE(refreshedIds(), QStringList());
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(contentOf(directory + u"/server_exit"_s), exitCode);
    QVERIFY(QFileInfo::exists(directory + u"/display"_s));
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionStore::refreshWarnsAboutADirectoryThatStays()
{
    const QString directory = newDirectory(1);
    putFile(directory + u"/server_exit"_s, "0");
    QVERIFY(QDir(directory).mkdir(u"subdirectory"_s));
    add(testId(1), directory, ::getpid());
    QCOMPARE(refreshedIds(), QStringList());
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(QFileInfo::exists(directory + u"/subdirectory"_s));
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to remove the directory \"%1\""_s.arg(directory)});
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionStore::refreshDropsBrokenSessions()
{
    const QString directory = newDirectory(1);
    add(testId(1), directory, ::getpid());
    QCOMPARE(refreshedIds(), QStringList());
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(testId(1)));
    QVERIFY(QFileInfo::exists(directory + u"/display"_s));
    QCOMPARE(TEST_heldSessions(), 0);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to open the file \"%1/server_exit\": No such file or "
                                              "directory"_s.arg(directory)});
}

void TestSessionStore::refreshReleasesEverySession()
{
    const QString running = newDirectory(1);
    const AgentProcess agent(running);
    add(testId(1), running, agent.pid());
    const QString failed = newDirectory(2);
    putFile(failed + u"/server_exit"_s, "7");
    add(testId(2), failed, ::getpid());
    add(testId(3), newDirectory(3), ::getpid());
    QCOMPARE(refreshedIds(), QStringList{testId(1)});
    for (const int number : {1, 2, 3}) {
        QVERIFY(!store->isBusy(testId(number)));
    }
    QCOMPARE(TEST_heldSessions(), 1);
}

void TestSessionStore::busySessionIsListedAsBefore()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    QCOMPARE(refreshedIds(), QStringList{testId(1)});

    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    session->clients = 1;
    for (int pass = 0; pass < 2; ++pass) {
        QList<SessionInfo> list;
        store->refreshAll(list);
        QCOMPARE(idsOf(list), QStringList{testId(1)});
        QCOMPARE(list.constFirst().permissions, (QStringList{u"connect"_s, u"terminate"_s}));
        QVERIFY(store->isBusy(testId(1)));
    }
}

void TestSessionStore::busySessionThatIsNewIsNotListed()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    QCOMPARE(refreshedIds(), QStringList());
    QCOMPARE(store->sessionIds(), QStringList{testId(1)});
    store->release(testId(1));
    QCOMPARE(refreshedIds(), QStringList{testId(1)});
}

void TestSessionStore::busySessionIsNotListedAfterItsRemoval()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    QCOMPARE(refreshedIds(), QStringList{testId(1)});
    store->removeSession(testId(1));
    QCOMPARE(refreshedIds(), QStringList());
    add(testId(1), directory, agent.pid());
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    QCOMPARE(refreshedIds(), QStringList());
}

void TestSessionStore::busySessionIsNotListedAsARemovedOne()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    QCOMPARE(refreshedIds(), QStringList{testId(1)});
    store->removeSession(testId(1)); // and no refresh notices it
    auto next = std::make_unique<Session>();
    next->directory = directory;
    store->addSession(testId(1), std::move(next));
    QCOMPARE(refreshedIds(), QStringList());
}

void TestSessionStore::freeSessionIsListedAsItIs()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    QCOMPARE(refreshedIds(), QStringList{testId(1)});
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    session->clients = 1;
    store->release(testId(1));
    QList<SessionInfo> list;
    store->refreshAll(list);
    QCOMPARE(list.constFirst().permissions, (QStringList{u"disconnect"_s, u"terminate"_s}));
}

void TestSessionStore::listingOfNothingIsEmpty()
{
    QList<SessionInfo> list = listOf({u"left over"_s});
    QCOMPARE(store->listLocalSessions(list), SessionOk);
    QVERIFY(list.isEmpty());
    list = listOf({u"left over"_s});
    QCOMPARE(store->listSessions(list), SessionOk);
    QVERIFY(list.isEmpty());
}

void TestSessionStore::listingIsInTheOrderOfIds()
{
    for (const int number : {3, 1, 2}) {
        add(testId(number));
    }
    QList<SessionInfo> list;
    QCOMPARE(store->listLocalSessions(list), SessionOk);
    QCOMPARE(idsOf(list), (QStringList{testId(1), testId(2), testId(3)}));
    QCOMPARE(list.constFirst().location, QUrl(u"zarvo://here:1"_s));
    for (const int number : {1, 2, 3}) {
        QVERIFY(!store->isBusy(testId(number)));
    }
}

void TestSessionStore::listingDoesNotRefresh()
{
    const QString directory = newDirectory(1);
    putFile(directory + u"/server_exit"_s, "0");
    add(testId(1), directory, ::getpid());
    QList<SessionInfo> list;
    QCOMPARE(store->listLocalSessions(list), SessionOk);
    QCOMPARE(idsOf(list), QStringList{testId(1)});
    QCOMPARE(store->listSessions(list), SessionOk);
    QCOMPARE(idsOf(list), QStringList{testId(1)});
    QVERIFY(QFileInfo::exists(directory));
}

void TestSessionStore::listingWaitsForABusySession()
{
    add(testId(1));
    add(testId(2));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(2), session), SessionOk);
    QList<SessionInfo> list;
    std::atomic<int> code = UnknownError;
    const BackgroundTask listing([&] { code = store->listLocalSessions(list); });
    const bool isBlocked = listing.waitUntilBlocked();
    session->clients = 1;
    store->release(testId(2));
    QVERIFY(listing.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(code.load(), int(SessionOk));
    QCOMPARE(idsOf(list), (QStringList{testId(1), testId(2)}));
    QCOMPARE(list.constLast().permissions, (QStringList{u"disconnect"_s, u"terminate"_s}));
}

void TestSessionStore::listingFailsWhenASessionIsRemoved_data()
{
    QTest::addColumn<bool>("isLocal");
    QTest::newRow("local") << true;
    QTest::newRow("all") << false;
}

void TestSessionStore::listingFailsWhenASessionIsRemoved()
{
    QFETCH(bool, isLocal);
    add(testId(1));
    add(testId(2));
    add(testId(3));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(2), session), SessionOk);
    std::atomic<int> code = SessionOk;
    const BackgroundTask listing([&] {
        QList<SessionInfo> list;
        code = isLocal ? store->listLocalSessions(list) : store->listSessions(list);
    });
    const bool isBlocked = listing.waitUntilBlocked();
    store->removeSession(testId(2));
    QVERIFY(listing.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(code.load(), -94);
    QVERIFY(!store->isBusy(testId(1)));
    QVERIFY(!store->isBusy(testId(3)));
}

void TestSessionStore::peerIsForgotten()
{
    store->storeRemoteSessions(u"a"_s, later(), listOf({u"1"_s}));
    store->storeRemoteSessions(u"b"_s, later(), listOf({u"2"_s}));
    store->forgetRemoteSessions(u"a"_s);
    QCOMPARE(idsOf(store->remoteSessions()), QStringList{u"2"_s});
    QCOMPARE(refreshedIds(), QStringList{u"2"_s});
}

void TestSessionStore::refreshListsPeersFirst()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    store->storeRemoteSessions(u"a"_s, later(), listOf({testId(2)}));
    QCOMPARE(refreshedIds(), (QStringList{testId(2), testId(1)}));
    QCOMPARE(refreshedIds(), (QStringList{testId(2), testId(1)}));
}

void TestSessionStore::refreshForgetsExpiredPeers()
{
    store->storeRemoteSessions(u"a"_s, earlier(), listOf({u"1"_s}));
    store->storeRemoteSessions(u"b"_s, later(), listOf({u"2"_s}));
    store->storeRemoteSessions(u"c"_s, earlier(), listOf({u"3"_s}));
    QCOMPARE(refreshedIds(), QStringList{u"2"_s});
    QCOMPARE(idsOf(store->remoteSessions()), QStringList{u"2"_s});
}

void TestSessionStore::listingKeepsExpiredPeers()
{
    store->storeRemoteSessions(u"a"_s, earlier(), listOf({u"1"_s}));
    QList<SessionInfo> list;
    QCOMPARE(store->listSessions(list), SessionOk);
    QCOMPARE(idsOf(list), QStringList{u"1"_s});
    store->purgeRemoteSessions();
    QCOMPARE(store->listSessions(list), SessionOk);
    QVERIFY(list.isEmpty());
}

void TestSessionStore::replacedListHasANewExpiry()
{
    store->storeRemoteSessions(u"a"_s, earlier(), listOf({u"1"_s}));
    store->storeRemoteSessions(u"a"_s, later(), listOf({u"2"_s}));
    store->storeRemoteSessions(u"b"_s, later(), listOf({u"3"_s}));
    store->storeRemoteSessions(u"b"_s, earlier(), listOf({u"4"_s}));
    QCOMPARE(refreshedIds(), QStringList{u"2"_s});
}

void TestSessionStore::listingPutsPeersFirst()
{
    add(testId(1));
    SessionInfo peer;
    peer.id = testId(2);
    peer.location = QUrl(u"zarvo://there:2"_s);
    store->storeRemoteSessions(u"a"_s, later(), {peer});
    QList<SessionInfo> list;
    QCOMPARE(store->listSessions(list), SessionOk);
    QCOMPARE(idsOf(list), (QStringList{testId(2), testId(1)}));
    QCOMPARE(list.at(0).location, QUrl(u"zarvo://there:2"_s));
    QCOMPARE(list.at(1).location, QUrl(u"zarvo://here:1"_s));
}

void TestSessionStore::localListingHasNoPeers()
{
    add(testId(1));
    store->storeRemoteSessions(u"a"_s, later(), listOf({testId(2)}));
    QList<SessionInfo> list;
    QCOMPARE(store->listLocalSessions(list), SessionOk);
    QCOMPARE(idsOf(list), QStringList{testId(1)});
}

ZARVO_TEST(TestSessionStore)
#include "tst_sessionstore.moc"
