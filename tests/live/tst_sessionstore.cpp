// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "live/sessionstore.h"
#include "tests/engine/agentprocess.h"
#include "tests/engine/reserveddisplays.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
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

    void scanFindsRunningSessions();
    void scanFindsSessionsThatEndedInOrder();
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

    void idsAreInAscendingOrder();
    void idsAreBusyUntilReleased();
    void releaseOfAnIdleIdDoesNothing();
    void acquireHandsOutTheRecord();
    void acquireOfAnUnknownIdFails();
    void acquireOfAnEmptyEntryFails();
    void acquireBlocksUntilRelease();
    void acquireBlocksOnItsOwnIdAlone();
    void everyWaiterGetsItsTurn();
    void removalWhileWaitingEndsTheWait();
    void tryAcquireDoesNotWait();
    void addedSessionReplacesTheEarlierOne();
    void everyEntryHoldsTheIdleTimerOnce();
    void removalOfAnUnknownIdReturnsNothing();
    void removalLeavesTheRecordToTheCaller();
    void destructorDropsAllHolds();

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
    void busySessionIsNotListedOnceItHasGone();
    void busySessionIsNotListedAsTheOneItReplaced();
    void freeSessionIsListedAsItIs();

    void listingOfNothingIsEmpty();
    void listingIsInTheOrderOfIds();
    void listingDoesNotRefresh();
    void listingWaitsForABusySession();
    void listingFailsWhenASessionGoes_data();
    void listingFailsWhenASessionGoes();

    void peersAreInTheOrderOfTheirKeys();
    void peersListIsReplaced();
    void peerIsForgotten();
    void forgettingAnUnknownPeerDoesNothing();
    void refreshListsPeersFirst();
    void refreshForgetsExpiredPeers();
    void listingKeepsExpiredPeers();
    void replacedListHasANewExpiry();
    void listingPutsPeersFirst();
    void localListingHasNoPeers();

private:
    /** Adds a session that nobody works on; one whose process is the test itself counts as ended. */
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

namespace {

QStringList idsOf(const QList<SessionInfo> &list)
{
    QStringList ids;
    for (const SessionInfo &info : list) {
        ids.append(info.id);
    }
    return ids;
}

QList<SessionInfo> listOf(const QStringList &ids)
{
    QList<SessionInfo> list;
    for (const QString &id : ids) {
        SessionInfo info;
        info.id = id;
        list.append(info);
    }
    return list;
}

QDateTime later()
{
    return QDateTime::currentDateTime().addSecs(3600);
}

QDateTime earlier()
{
    return QDateTime::currentDateTime().addSecs(-1);
}

} // namespace

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

void TestSessionStore::scanFindsRunningSessions()
{
    const LiveSession live(root, testId(1), displays.first(), u"{\"Clients\":2,\"Passwords\":[\"pw\"]}"_s);
    const SessionStore found(root, 0, 0, QString());
    QCOMPARE(found.sessionIds(), QStringList{testId(1)});
    QVERIFY(!found.isBusy(testId(1)));
    QCOMPARE(TEST_heldSessions(), 1);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionStore::scanFindsSessionsThatEndedInOrder()
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

void TestSessionStore::scanIgnoresOtherNames_data()
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

void TestSessionStore::scanIgnoresOtherNames()
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

void TestSessionStore::scanIgnoresFiles()
{
    putFile(sessionDirectory(root, testId(1)), "content");
    const SessionStore found(root, 0, 0, QString());
    QCOMPARE(found.sessionIds(), QStringList());
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionStore::scanIgnoresSessionsWithoutTheirFiles_data()
{
    QTest::addColumn<QString>("file");
    for (const char *file : {"display", "window_mode", "name", "monitor_pid", "server_exit"}) {
        QTest::newRow(file) << QString::fromLatin1(file);
    }
}

void TestSessionStore::scanIgnoresSessionsWithoutTheirFiles()
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

void TestSessionStore::scanIgnoresBrokenSessions()
{
    const QString directory = newDirectory(1);
    putFile(directory + u"/monitor_pid"_s, QByteArray::number(::getpid()));
    putFile(directory + u"/server_exit"_s, "no number");
    QCOMPARE(SessionStore(root, 0, 0, QString()).sessionIds(), QStringList());
    QVERIFY(QFileInfo::exists(directory));
}

void TestSessionStore::scanTellsIdsApartByCase()
{
    const QString upper = testId(0xA).toUpper();
    for (const QString &id : {testId(0xa), upper}) {
        const QString directory = makeSessionDirectory(root, id, displays.first());
        putFile(directory + u"/monitor_pid"_s, QByteArray::number(::getpid()));
        putFile(directory + u"/server_exit"_s, "0");
    }
    QCOMPARE(SessionStore(root, 0, 0, QString()).sessionIds(), (QStringList{upper, testId(0xa)}));
}

// A directory's name counts up to its first dot, so that two names may stand for one id.
void TestSessionStore::scanHoldsOnceForTwoDirectoriesOfOneId()
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

void TestSessionStore::missingRootHasNoSessions()
{
    SessionStore found(folder->filePath(u"missing"_s), 0, 0, QString());
    QCOMPARE(found.sessionIds(), QStringList());
    QList<SessionInfo> list;
    QCOMPARE(found.listLocalSessions(list), SessionOk);
    QVERIFY(list.isEmpty());
}

void TestSessionStore::storeIsCreatedWithoutTouchingTheDisk()
{
    const SessionStore found(folder->filePath(u"missing"_s), 0, 0, QString());
    QVERIFY(!QFileInfo::exists(folder->filePath(u"missing"_s)));
}

void TestSessionStore::idsAreInAscendingOrder()
{
    const QStringList ids{testId(1), testId(2), testId(0x10).replace(u'1', u'A'), testId(0x10).replace(u'1', u'a')};
    for (const qsizetype index : {2, 0, 3, 1}) {
        add(ids.at(index));
    }
    QCOMPARE(store->sessionIds(), ids);
}

void TestSessionStore::idsAreBusyUntilReleased()
{
    QVERIFY(!store->isBusy(testId(1)));
    store->addSession(testId(1), std::make_unique<Session>());
    QVERIFY(store->isBusy(testId(1)));
    QVERIFY(!store->isBusy(testId(2)));
    store->release(testId(1));
    QVERIFY(!store->isBusy(testId(1)));
}

void TestSessionStore::releaseOfAnIdleIdDoesNothing()
{
    add(testId(1));
    store->release(testId(1));
    store->release(testId(2));
    QCOMPARE(store->sessionIds(), QStringList{testId(1)});
    QCOMPARE(TEST_heldSessions(), 1);
}

void TestSessionStore::acquireHandsOutTheRecord()
{
    Session *record = add(testId(1));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    QCOMPARE(session, record);
    QVERIFY(store->isBusy(testId(1)));
}

void TestSessionStore::acquireOfAnUnknownIdFails()
{
    Session untouched;
    Session *session = &untouched;
    QCOMPARE(store->acquire(testId(1), session), NoSuchSession);
    QCOMPARE(session, &untouched);
    QVERIFY(!store->isBusy(testId(1)));
}

void TestSessionStore::acquireOfAnEmptyEntryFails()
{
    store->addSession(testId(1), nullptr);
    store->release(testId(1));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), NoSuchSession);
    QVERIFY(!store->isBusy(testId(1)));
}

void TestSessionStore::acquireBlocksUntilRelease()
{
    Session *record = add(testId(1));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);

    std::atomic<bool> isReleased = false;
    std::atomic<bool> cameAfterTheRelease = false;
    std::atomic<int> code = UnknownError;
    std::atomic<Session *> got = nullptr;
    const BackgroundTask second([&] {
        Session *mine = nullptr;
        code = store->acquire(testId(1), mine);
        cameAfterTheRelease = isReleased.load();
        got = mine;
    });
    const bool isBlocked = second.waitUntilBlocked();
    isReleased = true;
    store->release(testId(1));
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QVERIFY(cameAfterTheRelease);
    QCOMPARE(code.load(), int(SessionOk));
    QCOMPARE(got.load(), record);
    QVERIFY(store->isBusy(testId(1)));
}

void TestSessionStore::acquireBlocksOnItsOwnIdAlone()
{
    add(testId(1));
    add(testId(2));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    std::atomic<int> code = UnknownError;
    const BackgroundTask second([&] {
        Session *mine = nullptr;
        code = store->acquire(testId(2), mine);
    });
    QVERIFY(second.waitUntilDone());
    QCOMPARE(code.load(), int(SessionOk));
}

void TestSessionStore::everyWaiterGetsItsTurn()
{
    Session *record = add(testId(1));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    std::atomic<int> holders = 0;
    std::atomic<bool> wasAlwaysAlone = true;
    const auto work = [&] {
        for (int round = 0; round < 20; ++round) {
            Session *mine = nullptr;
            if (store->acquire(testId(1), mine) != SessionOk || ++holders != 1) {
                wasAlwaysAlone = false;
            }
            ++mine->clients;
            --holders;
            store->release(testId(1));
        }
    };
    {
        const BackgroundTask first(work);
        const BackgroundTask second(work);
        const BackgroundTask third(work);
        const bool areBlocked = first.waitUntilBlocked() && second.waitUntilBlocked() && third.waitUntilBlocked();
        store->release(testId(1));
        QVERIFY(areBlocked);
        QVERIFY(first.waitUntilDone() && second.waitUntilDone() && third.waitUntilDone());
    }
    QVERIFY(wasAlwaysAlone);
    QCOMPARE(record->clients, 60);
    QVERIFY(!store->isBusy(testId(1)));
}

void TestSessionStore::removalWhileWaitingEndsTheWait()
{
    add(testId(1));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    std::atomic<int> code = SessionOk;
    const BackgroundTask second([&] {
        Session *mine = nullptr;
        code = store->acquire(testId(1), mine);
    });
    const bool isBlocked = second.waitUntilBlocked();
    store->removeSession(testId(1));
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(code.load(), -94);
    QVERIFY(!store->isBusy(testId(1)));
}

void TestSessionStore::tryAcquireDoesNotWait()
{
    Session *record = add(testId(1));
    Session *session = nullptr;
    QCOMPARE(store->tryAcquire(testId(1), session), SessionOk);
    QCOMPARE(session, record);
    session = nullptr;
    QCOMPARE(store->tryAcquire(testId(1), session), InvalidState);
    QVERIFY(!session);
    QCOMPARE(store->tryAcquire(testId(2), session), NoSuchSession);
    QVERIFY(!store->isBusy(testId(2)));
}

void TestSessionStore::addedSessionReplacesTheEarlierOne()
{
    add(testId(1));
    auto next = std::make_unique<Session>();
    Session *record = next.get();
    store->addSession(testId(1), std::move(next));
    QVERIFY(store->isBusy(testId(1)));
    store->release(testId(1));
    QCOMPARE(store->sessionIds(), QStringList{testId(1)});
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(1), session), SessionOk);
    QCOMPARE(session, record);
}

void TestSessionStore::everyEntryHoldsTheIdleTimerOnce()
{
    QCOMPARE(TEST_heldSessions(), 0);
    add(testId(1));
    QCOMPARE(TEST_heldSessions(), 1);
    add(testId(2));
    QCOMPARE(TEST_heldSessions(), 2);
    add(testId(1));
    QCOMPARE(TEST_heldSessions(), 2);
    store->removeSession(testId(1));
    QCOMPARE(TEST_heldSessions(), 1);
    store->removeSession(testId(1));
    QCOMPARE(TEST_heldSessions(), 1);
    store->removeSession(testId(2));
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionStore::removalOfAnUnknownIdReturnsNothing()
{
    QVERIFY(!store->removeSession(testId(1)));
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionStore::removalLeavesTheRecordToTheCaller()
{
    Session *record = add(testId(1));
    const std::unique_ptr<Session> removed = store->removeSession(testId(1));
    QCOMPARE(removed.get(), record);
    QCOMPARE(removed->name, u"name"_s);
    QCOMPARE(store->sessionIds(), QStringList());
}

void TestSessionStore::destructorDropsAllHolds()
{
    add(testId(1));
    add(testId(2));
    store->addSession(testId(3), std::make_unique<Session>()); // busy to the end
    QCOMPARE(TEST_heldSessions(), 3);
    store.reset();
    QCOMPARE(TEST_heldSessions(), 0);
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

void TestSessionStore::busySessionIsNotListedOnceItHasGone()
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

void TestSessionStore::busySessionIsNotListedAsTheOneItReplaced()
{
    const QString directory = newDirectory(1);
    const AgentProcess agent(directory);
    add(testId(1), directory, agent.pid());
    QCOMPARE(refreshedIds(), QStringList{testId(1)});
    store->removeSession(testId(1)); // and no pass sees that it is gone
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

void TestSessionStore::listingFailsWhenASessionGoes_data()
{
    QTest::addColumn<bool>("isLocal");
    QTest::newRow("local") << true;
    QTest::newRow("all") << false;
}

void TestSessionStore::listingFailsWhenASessionGoes()
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

void TestSessionStore::peersAreInTheOrderOfTheirKeys()
{
    store->storeRemoteSessions(u"b"_s, later(), listOf({u"b2"_s, u"b1"_s}));
    store->storeRemoteSessions(u"a"_s, later(), listOf({u"a1"_s}));
    store->storeRemoteSessions(u"c"_s, later(), {});
    store->storeRemoteSessions(u"B"_s, later(), listOf({u"B1"_s}));
    QCOMPARE(idsOf(store->remoteSessions()), (QStringList{u"B1"_s, u"a1"_s, u"b2"_s, u"b1"_s}));
}

void TestSessionStore::peersListIsReplaced()
{
    store->storeRemoteSessions(u"a"_s, later(), listOf({u"1"_s, u"2"_s}));
    store->storeRemoteSessions(u"a"_s, later(), listOf({u"3"_s}));
    QCOMPARE(idsOf(store->remoteSessions()), QStringList{u"3"_s});
    store->storeRemoteSessions(u"a"_s, later(), {});
    QVERIFY(store->remoteSessions().isEmpty());
}

void TestSessionStore::peerIsForgotten()
{
    store->storeRemoteSessions(u"a"_s, later(), listOf({u"1"_s}));
    store->storeRemoteSessions(u"b"_s, later(), listOf({u"2"_s}));
    store->forgetRemoteSessions(u"a"_s);
    QCOMPARE(idsOf(store->remoteSessions()), QStringList{u"2"_s});
    QCOMPARE(refreshedIds(), QStringList{u"2"_s});
}

void TestSessionStore::forgettingAnUnknownPeerDoesNothing()
{
    store->storeRemoteSessions(u"a"_s, later(), listOf({u"1"_s}));
    store->forgetRemoteSessions(u"b"_s);
    QCOMPARE(idsOf(store->remoteSessions()), QStringList{u"1"_s});
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
