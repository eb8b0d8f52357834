// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "tests/live/actionsfixture.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/signalrecorder.h"
#include "tests/testmain.h"

#include <QFileInfo>

#include <atomic>
#include <functional>

using namespace Qt::StringLiterals;

class TestSessionActions : public QObject, private ActionsFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void resumeHandsOutANewPassword();
    void resumeReportsAnUnknownSize();
    void resumeIsRefusedInOtherStates_data();
    void resumeIsRefusedInOtherStates();
    void resumeWithoutASignalFails_data();
    void resumeWithoutASignalFails();
    void resumeRemovesASessionThatBreaks();
    void resumeOfAnAgentThatEndsFails();
    void secondResumeSeesWhatTheFirstLeft();

    void replayHandsOutTheLastPassword();
    void replayRepeatsWhatResumeGave();
    void replayIsRefusedInOtherStates_data();
    void replayIsRefusedInOtherStates();

    void suspendDisconnectsTheClients();
    void suspendIsRefusedWithoutClients_data();
    void suspendIsRefusedWithoutClients();
    void suspendWithoutASignalFails();
    void suspendOfAnAgentThatEndsFails();
    void suspendRemovesASessionThatBreaks();

    void terminateRemovesTheSession_data();
    void terminateRemovesTheSession();
    void terminateKeepsTheDirectoryOfAFailure();
    void terminateKeepsASubdirectory();
    void terminateWithoutASignalFails();
    void terminateRemovesASessionThatBreaks();
    void actionsOnUnknownIdsFail_data();
    void actionsOnUnknownIdsFail();
    void actionsOnARemovedSessionFail_data();
    void actionsOnARemovedSessionFail();

private:
    using Action = std::function<int(SessionStore &, const QString &)>;
};

void TestSessionActions::resumeHandsOutANewPassword()
{
    const LiveSession live(root, id, displays->first(), stateWith(0, QString()),
                           {.onUsr1 = tellState(stateWith(0, u"\"first\",\"last\""_s))});
    makeStore();
    QCOMPARE(resume(), SessionOk);
    QCOMPARE(windowMode, u"desktop"_s);
    QCOMPARE(geometry, u"800x600"_s);
    QCOMPARE(password, u"last"_s);
    QCOMPARE(port, agentPort(displays->first()));
    QVERIFY(!store->isBusy(id));
    QVERIFY(QTest::qWaitFor([&live] { return live.handledSignals() == "USR1\n"; }, 20000));
}

void TestSessionActions::resumeReportsAnUnknownSize()
{
    const LiveSession live(root, id, displays->first(), kReady,
                           {.onUsr1 = tellState(u"{\"Passwords\":[\"pw\"],\"ScreenWidth\":800}"_s)});
    makeStore();
    QCOMPARE(resume(), SessionOk);
    QCOMPARE(geometry, u"-1x-1"_s);
}

void TestSessionActions::resumeIsRefusedInOtherStates_data()
{
    QTest::addColumn<qint32>("clients");
    QTest::addColumn<QStringList>("passwords");
    QTest::newRow("connected") << 1 << QStringList();
    QTest::newRow("connected and offering") << 1 << QStringList{u"pw"_s};
    QTest::newRow("offering") << 0 << QStringList{u"pw"_s};
    QTest::newRow("fewer than no clients") << -1 << QStringList();
}

void TestSessionActions::resumeIsRefusedInOtherStates()
{
    QFETCH(qint32, clients);
    QFETCH(QStringList, passwords);
    const QString directory = makeSessionDirectory(root, id, displays->first());
    const SignalRecorder recorder(directory);
    putFile(directory + u"/server_pid"_s, QByteArray::number(recorder.pid()));
    addRecord(directory, clients, passwords);
    QCOMPARE(resume(), -92);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(recorder.received(), QList<int>());
    QCOMPARE(password, u"untouched"_s);
}

void TestSessionActions::resumeWithoutASignalFails_data()
{
    QTest::addColumn<QByteArray>("serverPid");
    QTest::addColumn<int>("expected");
    QTest::newRow("no pid") << QByteArray() << -86;
    QTest::newRow("no number") << QByteArray("none") << -86;
    QTest::newRow("own group") << QByteArray("0") << -99;
    QTest::newRow("every process") << QByteArray("-1") << -99;
    QTest::newRow("no process") << QByteArray("2147483647") << -99;
}

void TestSessionActions::resumeWithoutASignalFails()
{
    QFETCH(QByteArray, serverPid);
    QFETCH(int, expected);
    const QString directory = makeSessionDirectory(root, id, displays->first());
    if (!serverPid.isEmpty()) {
        putFile(directory + u"/server_pid"_s, serverPid);
    }
    addRecord(directory);
    QCOMPARE(resume(), expected);
    QCOMPARE(logger->takeLines().size(), 1);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
}

void TestSessionActions::resumeRemovesASessionThatBreaks()
{
    const LiveSession live(root, id, displays->first(), kReady, {.onUsr1 = kBreak});
    makeStore();
    QCOMPARE(resume(), ReadFailed);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(TEST_heldSessions(), 0);
    QCOMPARE(resume(), -94);
    QVERIFY(QFileInfo::exists(live.directory));
}

void TestSessionActions::resumeOfAnAgentThatEndsFails()
{
    const LiveSession live(root, id, displays->first(), kReady, {.onUsr1 = exitWith(0)});
    makeStore();
    QCOMPARE(resume(), -99);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QVERIFY(QFileInfo::exists(live.directory));
    QCOMPARE(password, u"untouched"_s);
}

void TestSessionActions::secondResumeSeesWhatTheFirstLeft()
{
    const QString directory = makeSessionDirectory(root, id, displays->first());
    Session *record = addRecord(directory);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    std::atomic<int> code = SessionOk;
    const BackgroundTask second([&] { code = resume(); });
    const bool isBlocked = second.waitUntilBlocked();
    record->passwords = QStringList{u"pw"_s};
    store->release(id);
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(code.load(), int(InvalidState));
}

void TestSessionActions::replayHandsOutTheLastPassword()
{
    const QString directory = makeSessionDirectory(root, id, displays->first());
    const SignalRecorder recorder(directory);
    putFile(directory + u"/server_pid"_s, QByteArray::number(recorder.pid()));
    addRecord(directory, 0, {u"first"_s, u"last"_s});
    QCOMPARE(replay(), SessionOk);
    QCOMPARE(windowMode, u"desktop"_s);
    QCOMPARE(geometry, u"640x480"_s);
    QCOMPARE(password, u"last"_s);
    QCOMPARE(port, agentPort(displays->first()));
    QVERIFY(!store->isBusy(id));
    QCOMPARE(recorder.received(), QList<int>());
}

void TestSessionActions::replayRepeatsWhatResumeGave()
{
    const LiveSession live(root, id, displays->first(), stateWith(0, QString()),
                           {.onUsr1 = tellState(stateWith(0, u"\"pw\""_s))});
    makeStore();
    QCOMPARE(resume(), SessionOk);
    const quint16 resumePort = port;
    for (int time = 0; time < 2; ++time) {
        password.clear();
        port = 0;
        QCOMPARE(replay(), SessionOk);
        QCOMPARE(password, u"pw"_s);
        QCOMPARE(port, resumePort);
    }
}

void TestSessionActions::replayIsRefusedInOtherStates_data()
{
    QTest::addColumn<qint32>("clients");
    QTest::addColumn<QStringList>("passwords");
    QTest::newRow("connected") << 1 << QStringList();
    QTest::newRow("connected and offering") << 1 << QStringList{u"pw"_s};
    QTest::newRow("idle") << 0 << QStringList();
    QTest::newRow("fewer than no clients") << -1 << QStringList{u"pw"_s};
}

void TestSessionActions::replayIsRefusedInOtherStates()
{
    QFETCH(qint32, clients);
    QFETCH(QStringList, passwords);
    addRecord(QString(), clients, passwords);
    QCOMPARE(replay(), -92);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(password, u"untouched"_s);
}

void TestSessionActions::suspendDisconnectsTheClients()
{
    const LiveSession live(root, id, displays->first(), stateWith(2, QString()),
                           {.onUsr2 = tellState(u"{\"Clients\":0,\"LastDisconnect\":\"2024-01-02T03:04:06\"}"_s)});
    makeStore();
    QCOMPARE(store->suspend(id), SessionOk);
    QVERIFY(!store->isBusy(id));
    QList<SessionInfo> list;
    QCOMPARE(store->listLocalSessions(list), SessionOk);
    QCOMPARE(list.constFirst().lastDisconnect, QDateTime(QDate(2024, 1, 2), QTime(3, 4, 6)));
    QCOMPARE(list.constFirst().permissions, (QStringList{u"connect"_s, u"terminate"_s}));
    QVERIFY(QTest::qWaitFor([&live] { return live.handledSignals() == "USR2\n"; }, 20000));
}

void TestSessionActions::suspendIsRefusedWithoutClients_data()
{
    QTest::addColumn<QStringList>("passwords");
    QTest::newRow("idle") << QStringList();
    QTest::newRow("offering") << QStringList{u"pw"_s};
}

void TestSessionActions::suspendIsRefusedWithoutClients()
{
    QFETCH(QStringList, passwords);
    const QString directory = makeSessionDirectory(root, id, displays->first());
    const SignalRecorder recorder(directory);
    putFile(directory + u"/server_pid"_s, QByteArray::number(recorder.pid()));
    addRecord(directory, 0, passwords);
    QCOMPARE(store->suspend(id), -92);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(recorder.received(), QList<int>());
}

void TestSessionActions::suspendWithoutASignalFails()
{
    addRecord(makeSessionDirectory(root, id, displays->first()), 1);
    QCOMPARE(store->suspend(id), ReadFailed);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
}

void TestSessionActions::suspendOfAnAgentThatEndsFails()
{
    const LiveSession live(root, id, displays->first(), stateWith(1, QString()), {.onUsr2 = exitWith(0)});
    makeStore();
    QCOMPARE(store->suspend(id), -99);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QVERIFY(QFileInfo::exists(live.directory));
}

void TestSessionActions::suspendRemovesASessionThatBreaks()
{
    const LiveSession live(root, id, displays->first(), stateWith(1, QString()), {.onUsr2 = kBreak});
    makeStore();
    QCOMPARE(store->suspend(id), ReadFailed);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionActions::terminateRemovesTheSession_data()
{
    QTest::addColumn<QString>("state");
    QTest::newRow("idle") << stateWith(0, QString());
    QTest::newRow("offering") << stateWith(0, u"\"pw\""_s);
    QTest::newRow("connected") << stateWith(1, QString());
}

void TestSessionActions::terminateRemovesTheSession()
{
    QFETCH(QString, state);
    const LiveSession live(root, id, displays->first(), state, {.onTerm = exitWith(0)});
    makeStore();
    QCOMPARE(TEST_heldSessions(), 1);
    QCOMPARE(store->terminate(id), SessionOk);
    QVERIFY(!QFileInfo::exists(live.directory));
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->terminate(id), -94);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionActions::terminateKeepsTheDirectoryOfAFailure()
{
    const LiveSession live(root, id, displays->first(), kReady, {.onTerm = exitWith(1)});
    makeStore();
    QCOMPARE(store->terminate(id), SessionOk);
    QCOMPARE(contentOf(live.path(u"server_exit"_s)), QByteArray("1"));
    QVERIFY(QFileInfo::exists(live.path(u"display"_s)));
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionActions::terminateKeepsASubdirectory()
{
    const LiveSession live(root, id, displays->first(), kReady, {.onTerm = exitWith(0)});
    QVERIFY(QDir(live.directory).mkdir(u"subdirectory"_s));
    makeStore();
    QCOMPARE(store->terminate(id), SessionOk);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to remove the directory \"%1\""_s.arg(live.directory)});
    QVERIFY(QFileInfo::exists(live.path(u"subdirectory"_s)));
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestSessionActions::terminateWithoutASignalFails()
{
    const QString directory = makeSessionDirectory(root, id, displays->first());
    addRecord(directory);
    QCOMPARE(store->terminate(id), ReadFailed);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QVERIFY(QFileInfo::exists(directory));
}

void TestSessionActions::terminateRemovesASessionThatBreaks()
{
    const LiveSession live(root, id, displays->first(), kReady, {.onTerm = kBreak});
    makeStore();
    QCOMPARE(store->terminate(id), ReadFailed);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
    QVERIFY(QFileInfo::exists(live.directory));
}

void TestSessionActions::actionsOnUnknownIdsFail_data()
{
    QTest::addColumn<Action>("action");
    QTest::newRow("resume") << Action([](SessionStore &sessions, const QString &unknown) {
        QString text;
        quint16 number = 0;
        return sessions.resume(unknown, text, text, text, number);
    });
    QTest::newRow("replay") << Action([](SessionStore &sessions, const QString &unknown) {
        QString text;
        quint16 number = 0;
        return sessions.replay(unknown, text, text, text, number);
    });
    QTest::newRow("suspend") << Action(&SessionStore::suspend);
    QTest::newRow("terminate") << Action(&SessionStore::terminate);
}

void TestSessionActions::actionsOnUnknownIdsFail()
{
    QFETCH(Action, action);
    addRecord(QString());
    QCOMPARE(action(*store, testId(1)), -94);
    QCOMPARE(action(*store, QString()), -94);
    QVERIFY(!store->isBusy(testId(1)));
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionActions::actionsOnARemovedSessionFail_data()
{
    actionsOnUnknownIdsFail_data();
}

void TestSessionActions::actionsOnARemovedSessionFail()
{
    QFETCH(Action, action);
    addRecord(QString());
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    std::atomic<int> code = SessionOk;
    const BackgroundTask second([&] { code = action(*store, id); });
    const bool isBlocked = second.waitUntilBlocked();
    store->removeSession(id);
    QVERIFY(second.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(code.load(), -94);
}

ZARVO_TEST(TestSessionActions)
#include "tst_sessionactions.moc"
