// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "live/sessionregistry.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
#include "tests/testmain.h"

#include <QTest>

#include <atomic>
#include <memory>

using namespace Qt::StringLiterals;

class TestSessionRegistry : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void idsAreInAscendingOrder();
    void idsAreBusyUntilReleased();
    void releaseOfAFreeIdDoesNothing();
    void acquireHandsOutTheRecord();
    void acquireOfAnUnknownIdFails();
    void acquireOfAnEmptyEntryFails();
    void acquireBlocksUntilRelease();
    void acquireBlocksOnItsOwnIdAlone();
    void everyWaiterGetsItsTurn();
    void removalWhileWaitingEndsTheWait();
    void tryAcquireDoesNotWait();
    void workOnAFreeSessionIsDoneAtOnce();
    void workOnABusySessionIsDoneAtItsRelease();
    void workIsDoneBeforeTheNextHolderComes();
    void laterWorkReplacesTheEarlier();
    void workThatComesDuringWorkIsDoneToo();
    void startWaitsForWorkOnAFreeSession();
    void workOnAnUnknownIdIsDropped();
    void workEndsWithTheSession();
    void addedSessionReplacesTheEarlierOne();
    void listedDescriptionOutlivesAReplacement();
    void listedDescriptionEndsWithTheSession();
    void everyEntryHoldsTheIdleTimerOnce();
    void removalOfAnUnknownIdReturnsNothing();
    void removalLeavesTheRecordToTheCaller();
    void destructorDropsAllHolds();

private:
    /** Adds a free session. */
    Session *add(const QString &id);

    std::unique_ptr<SessionRegistry> registry;
};

void TestSessionRegistry::init()
{
    registry = std::make_unique<SessionRegistry>();
}

void TestSessionRegistry::cleanup()
{
    registry.reset();
    QCOMPARE(TEST_heldSessions(), 0);
}

Session *TestSessionRegistry::add(const QString &id)
{
    auto session = std::make_unique<Session>();
    Session *record = session.get();
    record->name = u"name"_s;
    registry->addFreeSession(id, std::move(session));
    return record;
}

void TestSessionRegistry::idsAreInAscendingOrder()
{
    const QStringList ids{testId(1), testId(2), testId(0x10).replace(u'1', u'A'), testId(0x10).replace(u'1', u'a')};
    for (const qsizetype index : {2, 0, 3, 1}) {
        add(ids.at(index));
    }
    QCOMPARE(registry->sessionIds(), ids);
}

void TestSessionRegistry::idsAreBusyUntilReleased()
{
    QVERIFY(!registry->isBusy(testId(1)));
    registry->addSession(testId(1), std::make_unique<Session>());
    QVERIFY(registry->isBusy(testId(1)));
    QVERIFY(!registry->isBusy(testId(2)));
    registry->release(testId(1));
    QVERIFY(!registry->isBusy(testId(1)));
}

void TestSessionRegistry::releaseOfAFreeIdDoesNothing()
{
    add(testId(1));
    registry->release(testId(1));
    registry->release(testId(2));
    QCOMPARE(registry->sessionIds(), QStringList{testId(1)});
    QCOMPARE(TEST_heldSessions(), 1);
}

void TestSessionRegistry::acquireHandsOutTheRecord()
{
    Session *record = add(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    QCOMPARE(session, record);
    QVERIFY(registry->isBusy(testId(1)));
}

void TestSessionRegistry::acquireOfAnUnknownIdFails()
{
    Session untouched;
    Session *session = &untouched;
    QCOMPARE(registry->acquire(testId(1), &session), NoSuchSession);
    QCOMPARE(session, &untouched);
    QVERIFY(!registry->isBusy(testId(1)));
}

void TestSessionRegistry::acquireOfAnEmptyEntryFails()
{
    registry->addSession(testId(1), nullptr);
    registry->release(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), NoSuchSession);
    QVERIFY(!registry->isBusy(testId(1)));
}

void TestSessionRegistry::acquireBlocksUntilRelease()
{
    Session *record = add(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);

    std::atomic<bool> isReleased = false;
    std::atomic<bool> cameAfterTheRelease = false;
    std::atomic<int> code = UnknownError;
    std::atomic<Session *> got = nullptr;
    const BackgroundTask second([&] {
        Session *mine = nullptr;
        code = registry->acquire(testId(1), &mine);
        cameAfterTheRelease = isReleased.load();
        got = mine;
    });
    const bool isBlocked = second.waitUntilBlocked();
    isReleased = true;
    registry->release(testId(1));
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QVERIFY(cameAfterTheRelease);
    QCOMPARE(code.load(), int(SessionOk));
    QCOMPARE(got.load(), record);
    QVERIFY(registry->isBusy(testId(1)));
}

void TestSessionRegistry::acquireBlocksOnItsOwnIdAlone()
{
    add(testId(1));
    add(testId(2));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    std::atomic<int> code = UnknownError;
    const BackgroundTask second([&] {
        Session *mine = nullptr;
        code = registry->acquire(testId(2), &mine);
    });
    QVERIFY(second.waitUntilDone());
    QCOMPARE(code.load(), int(SessionOk));
}

void TestSessionRegistry::everyWaiterGetsItsTurn()
{
    Session *record = add(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    std::atomic<int> holders = 0;
    std::atomic<bool> wasAlwaysAlone = true;
    const auto work = [&] {
        for (int round = 0; round < 20; ++round) {
            Session *mine = nullptr;
            if (registry->acquire(testId(1), &mine) != SessionOk || ++holders != 1) {
                wasAlwaysAlone = false;
            }
            ++mine->clients;
            --holders;
            registry->release(testId(1));
        }
    };
    {
        const BackgroundTask first(work);
        const BackgroundTask second(work);
        const BackgroundTask third(work);
        const bool areBlocked = first.waitUntilBlocked() && second.waitUntilBlocked() && third.waitUntilBlocked();
        registry->release(testId(1));
        QVERIFY(areBlocked);
        QVERIFY(first.waitUntilDone() && second.waitUntilDone() && third.waitUntilDone());
    }
    QVERIFY(wasAlwaysAlone);
    QCOMPARE(record->clients, 60);
    QVERIFY(!registry->isBusy(testId(1)));
}

void TestSessionRegistry::removalWhileWaitingEndsTheWait()
{
    add(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    std::atomic<int> code = SessionOk;
    const BackgroundTask second([&] {
        Session *mine = nullptr;
        code = registry->acquire(testId(1), &mine);
    });
    const bool isBlocked = second.waitUntilBlocked();
    registry->removeSession(testId(1));
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(code.load(), -94);
    QVERIFY(!registry->isBusy(testId(1)));
}

void TestSessionRegistry::tryAcquireDoesNotWait()
{
    Session *record = add(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->tryAcquire(testId(1), &session), SessionOk);
    QCOMPARE(session, record);
    session = nullptr;
    QCOMPARE(registry->tryAcquire(testId(1), &session), InvalidState);
    QVERIFY(!session);
    QCOMPARE(registry->tryAcquire(testId(2), &session), NoSuchSession);
    QVERIFY(!registry->isBusy(testId(2)));
}

void TestSessionRegistry::workOnAFreeSessionIsDoneAtOnce()
{
    const Session *record = add(testId(1));
    const Session *seen = nullptr;
    bool wasBusy = false;
    registry->whenFree(testId(1), [&](const Session &session) {
        seen = &session;
        wasBusy = registry->isBusy(testId(1));
    });
    QCOMPARE(seen, record);
    QVERIFY(wasBusy);
    QVERIFY(!registry->isBusy(testId(1)));
}

void TestSessionRegistry::workOnABusySessionIsDoneAtItsRelease()
{
    add(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    int times = 0;
    registry->whenFree(testId(1), [&](const Session &) { ++times; });
    QCOMPARE(times, 0);
    registry->release(testId(1));
    QCOMPARE(times, 1);
    QVERIFY(!registry->isBusy(testId(1)));
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    registry->release(testId(1));
    QCOMPARE(times, 1);
}

void TestSessionRegistry::workIsDoneBeforeTheNextHolderComes()
{
    add(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    std::atomic<bool> isAlone = false;
    std::atomic<bool> hasHolder = false;
    const BackgroundTask next([&] {
        Session *mine = nullptr;
        hasHolder = registry->acquire(testId(1), &mine) == SessionOk;
    });
    const bool isBlocked = next.waitUntilBlocked();
    registry->whenFree(testId(1), [&](const Session &) { isAlone = !hasHolder && registry->isBusy(testId(1)); });
    registry->release(testId(1));
    QVERIFY(next.waitUntilDone());
    QVERIFY(isBlocked);
    QVERIFY(isAlone);
    QVERIFY(hasHolder);
}

void TestSessionRegistry::laterWorkReplacesTheEarlier()
{
    add(testId(1));
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    QStringList done;
    registry->whenFree(testId(1), [&](const Session &) { done.append(u"first"_s); });
    registry->whenFree(testId(1), [&](const Session &) { done.append(u"second"_s); });
    registry->release(testId(1));
    QCOMPARE(done, QStringList{u"second"_s});
}

void TestSessionRegistry::workThatComesDuringWorkIsDoneToo()
{
    add(testId(1));
    int times = 0;
    registry->whenFree(testId(1), [&](const Session &) {
        ++times;
        registry->whenFree(testId(1), [&](const Session &) { ++times; });
    });
    QCOMPARE(times, 2);
    QVERIFY(!registry->isBusy(testId(1)));
}

void TestSessionRegistry::startWaitsForWorkOnAFreeSession()
{
    add(testId(1));
    std::atomic<bool> isOver = false;
    const BackgroundTask worker([&] {
        while (!isOver) {
            registry->whenFree(testId(1), [](const Session &) {});
        }
    });
    int refused = 0;
    for (int i = 0; i < 20000; ++i) {
        if (registry->reserve(testId(1))) {
            registry->release(testId(1));
        } else {
            ++refused;
        }
    }
    isOver = true;
    QCOMPARE(refused, 0);
}

void TestSessionRegistry::workOnAnUnknownIdIsDropped()
{
    bool isDone = false;
    const auto work = [&](const Session &) { isDone = true; };
    registry->whenFree(testId(1), work);
    QVERIFY(registry->reserve(testId(2))); // busy, but not registered yet
    registry->whenFree(testId(2), work);
    registry->release(testId(2));
    registry->addSession(testId(3), nullptr);
    registry->whenFree(testId(3), work);
    registry->release(testId(3));
    QVERIFY(!isDone);
    QVERIFY(!registry->isBusy(testId(1)));
}

void TestSessionRegistry::workEndsWithTheSession()
{
    bool isDone = false;
    const auto work = [&](const Session &) { isDone = true; };
    registry->addSession(testId(1), std::make_unique<Session>());
    registry->whenFree(testId(1), work);
    registry->removeSession(testId(1));
    add(testId(1));
    registry->addSession(testId(2), std::make_unique<Session>());
    registry->whenFree(testId(2), work);
    registry->addSession(testId(2), std::make_unique<Session>());
    registry->release(testId(2));
    QVERIFY(!isDone);
}

void TestSessionRegistry::addedSessionReplacesTheEarlierOne()
{
    add(testId(1));
    auto next = std::make_unique<Session>();
    Session *record = next.get();
    registry->addSession(testId(1), std::move(next));
    QVERIFY(registry->isBusy(testId(1)));
    registry->release(testId(1));
    QCOMPARE(registry->sessionIds(), QStringList{testId(1)});
    Session *session = nullptr;
    QCOMPARE(registry->acquire(testId(1), &session), SessionOk);
    QCOMPARE(session, record);
}

void TestSessionRegistry::listedDescriptionOutlivesAReplacement()
{
    add(testId(1));
    QVERIFY(!registry->lastListed(testId(1)));
    SessionInfo info;
    info.name = u"earlier"_s;
    registry->setListed(testId(1), info);
    registry->addSession(testId(1), std::make_unique<Session>());
    QCOMPARE(registry->lastListed(testId(1)).value_or(SessionInfo()).name, u"earlier"_s);
    info.name = u"later"_s;
    registry->setListed(testId(1), info);
    QCOMPARE(registry->lastListed(testId(1)).value_or(SessionInfo()).name, u"later"_s);
}

void TestSessionRegistry::listedDescriptionEndsWithTheSession()
{
    add(testId(1));
    registry->setListed(testId(1), SessionInfo());
    registry->removeSession(testId(1));
    QVERIFY(!registry->lastListed(testId(1)));
    registry->setListed(testId(1), SessionInfo()); // of a removed session
    add(testId(1));
    QVERIFY(!registry->lastListed(testId(1)));
}

void TestSessionRegistry::everyEntryHoldsTheIdleTimerOnce()
{
    QCOMPARE(TEST_heldSessions(), 0);
    add(testId(1));
    QCOMPARE(TEST_heldSessions(), 1);
    add(testId(2));
    QCOMPARE(TEST_heldSessions(), 2);
    add(testId(1));
    QCOMPARE(TEST_heldSessions(), 2);
    registry->removeSession(testId(1));
    QCOMPARE(TEST_heldSessions(), 1);
    registry->removeSession(testId(1));
    QCOMPARE(TEST_heldSessions(), 1);
    registry->removeSession(testId(2));
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionRegistry::removalOfAnUnknownIdReturnsNothing()
{
    QVERIFY(!registry->removeSession(testId(1)));
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionRegistry::removalLeavesTheRecordToTheCaller()
{
    Session *record = add(testId(1));
    const std::unique_ptr<Session> removed = registry->removeSession(testId(1));
    QCOMPARE(removed.get(), record);
    QCOMPARE(removed->name, u"name"_s);
    QCOMPARE(registry->sessionIds(), QStringList());
}

void TestSessionRegistry::destructorDropsAllHolds()
{
    add(testId(1));
    add(testId(2));
    registry->addSession(testId(3), std::make_unique<Session>()); // busy to the end
    QCOMPARE(TEST_heldSessions(), 3);
    registry.reset();
    QCOMPARE(TEST_heldSessions(), 0);
}

ZARVO_TEST(TestSessionRegistry)
#include "tst_sessionregistry.moc"
