// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "live/sessionlease.h"
#include "live/sessionregistry.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
#include "tests/testmain.h"

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
    void ifFreeFailsForAnUnknownSession();
    void takenOverSessionIsReleased();
    void removeEndsTheLease();
    void removeDoesNotReleaseTheNextHolder();
    void brokenSessionIsRemovedAfterAFailure();
    void soundSessionSurvivesAFailure();

private:
    const QString id = testId(1);
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionRegistry> registry;
    Session *record = nullptr;
};

void TestSessionLease::init()
{
    logger = std::make_unique<CollectingLogger>();
    registry = std::make_unique<SessionRegistry>();
    auto session = std::make_unique<Session>();
    record = session.get();
    registry->addSession(id, std::move(session));
    registry->release(id);
}

void TestSessionLease::cleanup()
{
    registry.reset();
    QCOMPARE(TEST_heldSessions(), 0);
    logger.reset();
}

void TestSessionLease::sessionIsBusyWithinTheScope()
{
    {
        const SessionLease lease(registry.get(), id);
        QCOMPARE(lease.code(), SessionOk);
        QVERIFY(registry->isBusy(id));
    }
    QVERIFY(!registry->isBusy(id));
    QCOMPARE(registry->sessionIds(), QStringList{id});
}

void TestSessionLease::leaseGivesAccessToTheRecord()
{
    const SessionLease lease(registry.get(), id);
    QCOMPARE(lease.get(), record);
    QCOMPARE(&*lease, record);
    lease->clients = 7;
    QCOMPARE(record->clients, 7);
}

void TestSessionLease::unknownSessionHasNoLease()
{
    const SessionLease lease(registry.get(), testId(2));
    QCOMPARE(lease.code(), NoSuchSession);
    QVERIFY(!lease.get());
    QVERIFY(!registry->isBusy(testId(2)));
}

void TestSessionLease::failedLeaseReleasesNothing()
{
    const SessionLease holder(registry.get(), id);
    {
        const SessionLease second(registry.get(), id, SessionLease::IfFree());
        QVERIFY(second.code() != SessionOk);
    }
    QVERIFY(registry->isBusy(id));
}

void TestSessionLease::leaseWaitsForTheHolder()
{
    std::atomic<bool> isReleased = false;
    std::atomic<bool> cameAfterTheRelease = false;
    std::atomic<int> code = UnknownError;
    auto holder = std::make_unique<SessionLease>(registry.get(), id);
    const BackgroundTask second([&] {
        const SessionLease lease(registry.get(), id);
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
    QVERIFY(!registry->isBusy(id));
}

void TestSessionLease::sessionRemovedMeanwhileHasNoLease()
{
    std::atomic<int> code = SessionOk;
    auto holder = std::make_unique<SessionLease>(registry.get(), id);
    const BackgroundTask second([&] { code = SessionLease(registry.get(), id).code(); });
    const bool isBlocked = second.waitUntilBlocked();
    holder->remove();
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(code.load(), int(NoSuchSession));
}

void TestSessionLease::ifFreeTakesAFreeSession()
{
    {
        const SessionLease lease(registry.get(), id, SessionLease::IfFree());
        QCOMPARE(lease.code(), SessionOk);
        QCOMPARE(lease.get(), record);
        QVERIFY(registry->isBusy(id));
    }
    QVERIFY(!registry->isBusy(id));
}

void TestSessionLease::ifFreeDoesNotWait()
{
    const SessionLease holder(registry.get(), id);
    const SessionLease lease(registry.get(), id, SessionLease::IfFree());
    QCOMPARE(lease.code(), InvalidState);
    QVERIFY(!lease.get());
}

void TestSessionLease::ifFreeFailsForAnUnknownSession()
{
    const SessionLease lease(registry.get(), testId(2), SessionLease::IfFree());
    QCOMPARE(lease.code(), NoSuchSession);
    QVERIFY(!lease.get());
    QVERIFY(!registry->isBusy(testId(2)));
}

void TestSessionLease::takenOverSessionIsReleased()
{
    auto session = std::make_unique<Session>();
    Session *added = session.get();
    registry->addSession(testId(2), std::move(session));
    {
        const SessionLease lease(registry.get(), testId(2), added);
        QCOMPARE(lease.code(), SessionOk);
        QCOMPARE(lease.get(), added);
        QVERIFY(registry->isBusy(testId(2)));
    }
    QVERIFY(!registry->isBusy(testId(2)));
    QCOMPARE(registry->sessionIds(), (QStringList{id, testId(2)}));
}

void TestSessionLease::removeEndsTheLease()
{
    SessionLease lease(registry.get(), id);
    lease.remove();
    QVERIFY(!lease.get());
    QVERIFY(!registry->isBusy(id));
    QCOMPARE(registry->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionLease::removeDoesNotReleaseTheNextHolder()
{
    {
        SessionLease lease(registry.get(), id);
        lease.remove();
        registry->addSession(id, std::make_unique<Session>());
    }
    QVERIFY(registry->isBusy(id));
}

void TestSessionLease::brokenSessionIsRemovedAfterAFailure()
{
    {
        SessionLease lease(registry.get(), id);
        lease->broken = true;
        QCOMPARE(lease.removeIfBroken(ReadFailed), ReadFailed);
        QVERIFY(!lease.get());
        QCOMPARE(registry->sessionIds(), QStringList());
        QVERIFY(!registry->isBusy(id));
    }
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionLease::soundSessionSurvivesAFailure()
{
    {
        SessionLease lease(registry.get(), id);
        QCOMPARE(lease.removeIfBroken(TimedOut), TimedOut);
        QVERIFY(registry->isBusy(id));
    }
    QVERIFY(!registry->isBusy(id));
    QCOMPARE(registry->sessionIds(), QStringList{id});
    QCOMPARE(TEST_heldSessions(), 1);
}

ZARVO_TEST(TestSessionLease)
#include "tst_sessionlease.moc"
