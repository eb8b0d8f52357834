// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "live/sessionlease.h"
#include "live/sessionstore.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <memory>

using namespace Qt::StringLiterals;

class TestSessionLease : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void sessionIsBusyWithinTheScope();
    void leaseGivesAccessToTheRecord();
    void unknownSessionHasNoLease();
    void failedLeaseReleasesNothing();
    void leaseWaitsForTheHolder();
    void sessionRemovedMeanwhileHasNoLease();
    void ifFreeTakesAFreeSession();
    void ifFreeDoesNotWait();
    void ifFreeKnowsNoUnknownSession();
    void takenOverSessionIsReleased();
    void removeEndsTheLease();
    void removeDoesNotReleaseTheNextHolder();
    void brokenSessionIsRemovedAfterAFailure();
    void soundSessionSurvivesAFailure();

private:
    const QString id = testId(1);
    QTemporaryDir folder;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionStore> store;
    Session *record = nullptr;
};

void TestSessionLease::init()
{
    logger = std::make_unique<CollectingLogger>();
    store = std::make_unique<SessionStore>(folder.path(), quint16(0), quint16(0), QString());
    auto session = std::make_unique<Session>();
    record = session.get();
    store->addSession(id, std::move(session));
    store->release(id);
}

void TestSessionLease::cleanup()
{
    store.reset();
    QCOMPARE(TEST_heldSessions(), 0);
    logger.reset();
}

void TestSessionLease::sessionIsBusyWithinTheScope()
{
    {
        const SessionLease lease(store.get(), id);
        QCOMPARE(lease.code(), SessionOk);
        QVERIFY(store->isBusy(id));
    }
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
}

void TestSessionLease::leaseGivesAccessToTheRecord()
{
    const SessionLease lease(store.get(), id);
    QCOMPARE(lease.get(), record);
    QCOMPARE(&*lease, record);
    lease->clients = 7;
    QCOMPARE(record->clients, 7);
}

void TestSessionLease::unknownSessionHasNoLease()
{
    const SessionLease lease(store.get(), testId(2));
    QCOMPARE(lease.code(), NoSuchSession);
    QVERIFY(!lease.get());
    QVERIFY(!store->isBusy(testId(2)));
}

void TestSessionLease::failedLeaseReleasesNothing()
{
    const SessionLease holder(store.get(), id);
    {
        const SessionLease second(store.get(), id, SessionLease::IfFree());
        QVERIFY(second.code() != SessionOk);
    }
    QVERIFY(store->isBusy(id));
}

void TestSessionLease::leaseWaitsForTheHolder()
{
    std::atomic<bool> isReleased = false;
    std::atomic<bool> cameAfterTheRelease = false;
    std::atomic<int> code = UnknownError;
    auto holder = std::make_unique<SessionLease>(store.get(), id);
    const BackgroundTask second([&] {
        const SessionLease lease(store.get(), id);
        cameAfterTheRelease = isReleased.load();
        code = lease.code();
    });
    const bool isBlocked = second.waitUntilBlocked();
    isReleased = true;
    holder.reset();
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QVERIFY(cameAfterTheRelease);
    QCOMPARE(code.load(), int(SessionOk));
    QVERIFY(!store->isBusy(id));
}

void TestSessionLease::sessionRemovedMeanwhileHasNoLease()
{
    std::atomic<int> code = SessionOk;
    auto holder = std::make_unique<SessionLease>(store.get(), id);
    const BackgroundTask second([&] { code = SessionLease(store.get(), id).code(); });
    const bool isBlocked = second.waitUntilBlocked();
    holder->remove();
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(code.load(), int(NoSuchSession));
}

void TestSessionLease::ifFreeTakesAFreeSession()
{
    {
        const SessionLease lease(store.get(), id, SessionLease::IfFree());
        QCOMPARE(lease.code(), SessionOk);
        QCOMPARE(lease.get(), record);
        QVERIFY(store->isBusy(id));
    }
    QVERIFY(!store->isBusy(id));
}

void TestSessionLease::ifFreeDoesNotWait()
{
    const SessionLease holder(store.get(), id);
    const SessionLease lease(store.get(), id, SessionLease::IfFree());
    QCOMPARE(lease.code(), InvalidState);
    QVERIFY(!lease.get());
}

void TestSessionLease::ifFreeKnowsNoUnknownSession()
{
    const SessionLease lease(store.get(), testId(2), SessionLease::IfFree());
    QCOMPARE(lease.code(), NoSuchSession);
    QVERIFY(!lease.get());
    QVERIFY(!store->isBusy(testId(2)));
}

void TestSessionLease::takenOverSessionIsReleased()
{
    auto session = std::make_unique<Session>();
    Session *added = session.get();
    store->addSession(testId(2), std::move(session));
    {
        const SessionLease lease(store.get(), testId(2), added);
        QCOMPARE(lease.code(), SessionOk);
        QCOMPARE(lease.get(), added);
        QVERIFY(store->isBusy(testId(2)));
    }
    QVERIFY(!store->isBusy(testId(2)));
    QCOMPARE(store->sessionIds(), (QStringList{id, testId(2)}));
}

void TestSessionLease::removeEndsTheLease()
{
    SessionLease lease(store.get(), id);
    lease.remove();
    QVERIFY(!lease.get());
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionLease::removeDoesNotReleaseTheNextHolder()
{
    {
        SessionLease lease(store.get(), id);
        lease.remove();
        store->addSession(id, std::make_unique<Session>());
    }
    QVERIFY(store->isBusy(id));
}

void TestSessionLease::brokenSessionIsRemovedAfterAFailure()
{
    {
        SessionLease lease(store.get(), id);
        lease->broken = true;
        QCOMPARE(lease.removeIfBroken(ReadFailed), ReadFailed);
        QVERIFY(!lease.get());
        QCOMPARE(store->sessionIds(), QStringList());
        QVERIFY(!store->isBusy(id));
    }
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionLease::soundSessionSurvivesAFailure()
{
    {
        SessionLease lease(store.get(), id);
        QCOMPARE(lease.removeIfBroken(TimedOut), TimedOut);
        QVERIFY(store->isBusy(id));
    }
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(TEST_heldSessions(), 1);
}

ZARVO_TEST(TestSessionLease)
#include "tst_sessionlease.moc"
