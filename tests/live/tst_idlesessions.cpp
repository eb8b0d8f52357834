// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "tests/live/actionsfixture.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/signalrecorder.h"
#include "tests/testmain.h"

#include <QFileInfo>

#include <atomic>
#include <csignal>
#include <memory>

using namespace Qt::StringLiterals;

class TestIdleSessions : public QObject, private ActionsFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void idleSessionIsAskedToEnd_data();
    void idleSessionIsAskedToEnd();
    void busySessionIsAskedToEndWhenItIsFree();
    void busySessionThatGetsAClientIsNotAskedToEnd();
    void startedSessionIsAskedToEndWhenItsStartHasEnded();
    void checkOfABusySessionKeepsItsTimeout();
    void checkOfABusySessionIsDoneOnce();
    void checkEndsWhenTheSessionIsRemoved();
    void checkEndsWhenTheSessionIsReplaced();
    void everyIdleSessionIsAskedToEnd();

private:
    [[nodiscard]] QString directory() const { return makeSessionDirectory(root, id, displays->first()); }
    /** Adds a session without a client whose signals reach the recorder. */
    void addIdleSession(const SignalRecorder &recorder)
    {
        putFile(fileOf(u"server_pid"_s), QByteArray::number(recorder.pid()));
        addRecord(directory());
    }
};

void TestIdleSessions::idleSessionIsAskedToEnd_data()
{
    QTest::addColumn<qint32>("clients");
    QTest::addColumn<int>("secondsAgo"); // 0 for a session that never had a client
    QTest::addColumn<int>("minutes");
    QTest::addColumn<bool>("isAsked");

    QTest::newRow("never had a client") << 0 << 0 << 60 << true;
    QTest::newRow("never had a client, at once") << 0 << 0 << 0 << true;
    QTest::newRow("at once") << 0 << 1 << 0 << true;
    QTest::newRow("just over the limit") << 0 << 61 << 1 << true;
    QTest::newRow("just within the limit") << 0 << 30 << 1 << false;
    QTest::newRow("just over an hour") << 0 << 3601 << 60 << true;
    QTest::newRow("just within an hour") << 0 << 3540 << 60 << false;
    QTest::newRow("gone in the future") << 0 << -3600 << 0 << false;
    QTest::newRow("connected") << 1 << 100000 << 0 << false;
    QTest::newRow("connected for the first time") << 1 << 0 << 0 << false;
    QTest::newRow("fewer than no clients") << -1 << 100000 << 0 << false;
    QTest::newRow("longest setting without an overflow") << 0 << 3600 << 35791394 << false;
}

void TestIdleSessions::idleSessionIsAskedToEnd()
{
    QFETCH(qint32, clients);
    QFETCH(int, secondsAgo);
    QFETCH(int, minutes);
    QFETCH(bool, isAsked);
    const QString directory = makeSessionDirectory(root, id, displays->first());
    const SignalRecorder recorder(directory);
    putFile(directory + u"/server_pid"_s, QByteArray::number(recorder.pid()));
    Session *record = addRecord(directory, clients);
    if (secondsAgo != 0) {
        record->lastDisconnect = QDateTime::currentDateTime().addSecs(-secondsAgo);
    }
    store->suspendIdle(minutes);
    QCOMPARE(recorder.received(), isAsked ? QList<int>{SIGTERM} : QList<int>());
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QVERIFY(QFileInfo::exists(directory));
}

void TestIdleSessions::busySessionIsAskedToEndWhenItIsFree()
{
    const SignalRecorder recorder(directory());
    addIdleSession(recorder);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    store->suspendIdle(0);
    QCOMPARE(recorder.received(), QList<int>());
    QVERIFY(store->isBusy(id));

    store->release(id);
    QCOMPARE(recorder.received(), QList<int>{SIGTERM});
    QVERIFY(!store->isBusy(id));
}

void TestIdleSessions::busySessionThatGetsAClientIsNotAskedToEnd()
{
    const SignalRecorder recorder(directory());
    addIdleSession(recorder);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    store->suspendIdle(0);
    session->clients = 1;
    store->release(id);
    QCOMPARE(recorder.received(), QList<int>());
}

void TestIdleSessions::startedSessionIsAskedToEndWhenItsStartHasEnded()
{
    addAgent(tellState(kReady), {.onUsr1 = u"echo > asked; until [ -e seen ]; do sleep 0.01; done\n"_s +
                                           tellState(stateWith(0, u"\"pw\""_s))});
    std::atomic<int> code = UnknownError;
    const BackgroundTask starting([&] { code = start(id); });
    const bool isAsked = waitForFile(fileOf(u"asked"_s));
    const SignalRecorder recorder(sessionDirectory(root, id));
    putFile(fileOf(u"server_pid"_s), QByteArray::number(recorder.pid())); // from now on it gets the agent's signals
    const QStringList ids = store->sessionIds();
    const bool wasBusy = store->isBusy(id);
    store->suspendIdle(60); // the session never had a client, so the time does not matter
    const QList<int> during = recorder.received();
    const bool wasDone = starting.isDone();
    putFile(fileOf(u"seen"_s), "");
    QVERIFY(starting.waitUntilDone());
    QVERIFY(isAsked);
    QCOMPARE(ids, QStringList{id});
    QVERIFY(wasBusy);
    QVERIFY(!wasDone);
    QCOMPARE(during, QList<int>());

    QCOMPARE(code.load(), int(SessionOk));
    QCOMPARE(password, u"pw"_s);
    QCOMPARE(recorder.received(), QList<int>{SIGTERM});
    QVERIFY(!store->isBusy(id));
}

void TestIdleSessions::checkOfABusySessionKeepsItsTimeout()
{
    const SignalRecorder recorder(directory());
    addIdleSession(recorder);
    Session *session = nullptr;
    for (const int minutes : {3, 1}) {
        QCOMPARE(store->acquire(id, session), SessionOk);
        session->lastDisconnect = QDateTime::currentDateTime().addSecs(-120);
        store->suspendIdle(minutes);
        store->release(id);
        QCOMPARE(recorder.received(), minutes == 1 ? QList<int>{SIGTERM} : QList<int>());
    }
}

void TestIdleSessions::checkOfABusySessionIsDoneOnce()
{
    const SignalRecorder recorder(directory());
    addIdleSession(recorder);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    store->suspendIdle(0);
    session->clients = 1;
    store->release(id);
    QCOMPARE(store->acquire(id, session), SessionOk);
    session->clients = 0;
    store->release(id);
    QCOMPARE(recorder.received(), QList<int>());
}

void TestIdleSessions::checkEndsWhenTheSessionIsRemoved()
{
    const SignalRecorder recorder(directory());
    addIdleSession(recorder);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    store->suspendIdle(0);
    store->removeSession(id);
    addRecord(directory());
    QCOMPARE(recorder.received(), QList<int>());
}

void TestIdleSessions::checkEndsWhenTheSessionIsReplaced()
{
    const SignalRecorder recorder(directory());
    addIdleSession(recorder);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    store->suspendIdle(0);
    addRecord(directory());
    QCOMPARE(recorder.received(), QList<int>());
}

void TestIdleSessions::everyIdleSessionIsAskedToEnd()
{
    // The first session cannot be signalled. The check goes on.
    addRecord(makeSessionDirectory(root, id, displays->first()));
    const QString directory = makeSessionDirectory(root, testId(0xb), displays->first());
    const SignalRecorder recorder(directory);
    putFile(directory + u"/server_pid"_s, QByteArray::number(recorder.pid()));
    auto session = std::make_unique<Session>();
    session->directory = directory;
    store->addSession(testId(0xb), std::move(session));
    store->release(testId(0xb));
    store->suspendIdle(0);
    QCOMPARE(recorder.received(), QList<int>{SIGTERM});
    QCOMPARE(store->sessionIds(), (QStringList{id, testId(0xb)}));
    QVERIFY(!store->isBusy(id));
    QVERIFY(!store->isBusy(testId(0xb)));
}

ZARVO_TEST(TestIdleSessions)
#include "tst_idlesessions.moc"
