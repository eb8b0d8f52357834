// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "tests/helpers/leftsocket.h"
#include "tests/live/actionsfixture.h"
#include "tests/live/backgroundtask.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QFileInfo>

#include <atomic>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestStartAction : public QObject, private ActionsFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void startHandsOutAPasswordAndThePort();
    void startedSessionIsListedAndReplayed();
    void startedSessionIsListedEvenIfItIsBusyAtOnce();
    void startKeepsTheCaseOfTheId();
    void startOfARootlessSession();
    void startHandsOutTheLastPassword();
    void startWaitsUntilThereIsAPassword();
    void startRefusesABadId_data();
    void startRefusesABadId();
    void startRefusesAnIdThatIsBeingStarted();
    void startRefusesABusySession();
    void startWaitsForTheEndOfAPeek();
    void startReplacesASession();
    void restartedSessionIsListedAsBeforeUntilItsStartEnds();
    void restartedSessionThatFailsIsListedAsBeforeUntilTheNextRefresh_data();
    void restartedSessionThatFailsIsListedAsBeforeUntilTheNextRefresh();
    void restartedSessionThatBreaksIsNotListed();
    void restartedSessionThatIsTerminatedIsNotListed();
    void startWithoutADisplayFails();
    void startWithoutADirectoryFails();
    void startWithoutItsFilesFails();
    void startWithoutAnAuthorityFails();
    void startWithoutAnAgentFails();
    void failedStartKeepsTheEarlierSession();
    void sessionThatBreaksAtTheStartIsRemoved();
    void agentThatEndsBeforeItIsReadyStaysRegistered();
    void startWithoutAnApplicationKeepsTheSession();
    void startWithoutAnApplicationLogKeepsTheSession();
    void agentThatTakesNoSignalsKeepsTheSession();
    void sessionThatBreaksAtTheSignalIsRemoved();
    void agentThatOffersNoPasswordTimesOut();

    void displayOfARegisteredSessionIsNotReused();
    void displayOfAFoundSessionIsNotReused();
    void displayOfAKilledAgentIsReused();

private:
    /** Adds a session with a running agent and lists it. */
    void addListedSession(const AgentProcess &agent);
    [[nodiscard]] QList<SessionInfo> refreshed();
};

void TestStartAction::addListedSession(const AgentProcess &agent)
{
    Session *record = addRecordOn(displays->end(), sessionDirectory(root, id), 0, {});
    record->monitorPid = agent.pid();
    record->name = u"earlier"_s;
    QCOMPARE(refreshed().size(), 1);
}

QList<SessionInfo> TestStartAction::refreshed()
{
    QList<SessionInfo> list;
    store->refreshAll(list);
    return list;
}

void TestStartAction::startHandsOutAPasswordAndThePort()
{
    addAgent(tellState(kReady), {.onUsr1 = tellState(stateWith(0, u"\"one-time\""_s))});
    QCOMPARE(start(id), SessionOk);
    QCOMPARE(password, u"one-time"_s);
    QCOMPARE(port, agentPort(displays->first()));
    QVERIFY(!store->isBusy(id));
    QCOMPARE(TEST_heldSessions(), 1);
    QCOMPARE(contentOf(fileOf(u"arguments"_s)), "1024x768," + QByteArray::number(41000 + displays->first()) + ',');
    QVERIFY(waitForFile(fileOf(u"command"_s)));
    QCOMPARE(contentOf(fileOf(u"command"_s)), QByteArray("xterm -e 'vi  x'"));
    QCOMPARE(contentOf(fileOf(u"name"_s)), QByteArray("xterm -e 'vi  x'"));
    QVERIFY(QTest::qWaitFor([this] { return contentOf(fileOf(u"signals"_s)) == "USR1\n"; }, 20000));
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestStartAction::startedSessionIsListedAndReplayed()
{
    addAgent(tellState(kReady), {.onUsr1 = tellState(stateWith(0, u"\"one-time\""_s))});
    QCOMPARE(start(id), SessionOk);
    QList<SessionInfo> list;
    QCOMPARE(store->listLocalSessions(list), SessionOk);
    QCOMPARE(list.size(), 1);
    QCOMPARE(list.constFirst().id, id);
    QCOMPARE(list.constFirst().windowMode, u"desktop"_s);
    QCOMPARE(list.constFirst().started, QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5)));
    QCOMPARE(list.constFirst().permissions, (QStringList{u"retry"_s, u"terminate"_s}));

    const quint16 startPort = port;
    QCOMPARE(replay(), SessionOk);
    QCOMPARE(windowMode, u"desktop"_s);
    QCOMPARE(geometry, u"800x600"_s);
    QCOMPARE(password, u"one-time"_s);
    QCOMPARE(port, startPort);
}

void TestStartAction::startedSessionIsListedEvenIfItIsBusyAtOnce()
{
    addAgent(tellState(kReady), {.onUsr1 = tellState(stateWith(0, u"\"one-time\""_s))});
    QCOMPARE(start(id), SessionOk);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    QList<SessionInfo> list;
    store->refreshAll(list);
    store->release(id);
    QCOMPARE(list.size(), 1);
    QCOMPARE(list.constFirst().permissions, (QStringList{u"retry"_s, u"terminate"_s}));
}

void TestStartAction::startKeepsTheCaseOfTheId()
{
    const QString upper = u"ABCDEFabcdef00000000000000000000"_s;
    programs->add(u"start-agent"_s, kBreak);
    QCOMPARE(start(upper), ReadFailed);
    QVERIFY(QFileInfo::exists(root + u"/C-"_s + upper + u"/display"_s));
}

void TestStartAction::startOfARootlessSession()
{
    addAgent(tellState(kReady), {.onUsr1 = tellState(stateWith(0, u"\"pw\""_s))});
    QCOMPARE(store->start(id, u"xterm"_s, u"rootless"_s, password, port), SessionOk);
    QCOMPARE(replay(), SessionOk);
    QCOMPARE(windowMode, u"rootless"_s);
    QVERIFY(contentOf(fileOf(u"arguments"_s)).startsWith("rootless,"));
}

void TestStartAction::startHandsOutTheLastPassword()
{
    addAgent(tellState(stateWith(0, u"\"old\""_s)), {.onUsr1 = tellState(stateWith(0, u"\"old\",\"new\""_s))});
    QCOMPARE(start(id), SessionOk);
    QCOMPARE(password, u"new"_s);
}

void TestStartAction::startWaitsUntilThereIsAPassword()
{
    // A client uses the earlier password before the agent offers the new one.
    addAgent(tellState(stateWith(0, u"\"old\""_s)),
             {.onUsr1 = tellState(stateWith(0, QString())) + u"\nuntil [ -e seen ]; do sleep 0.01; done\n"_s +
                        tellState(stateWith(0, u"\"new\""_s))});
    std::atomic<int> code = UnknownError;
    const BackgroundTask starting([&] { code = start(id); });
    const auto isEmptyListSeen = [this, calls = -1]() mutable {
        if (!contentOf(fileOf(u"state"_s)).contains("\"Passwords\":[],")) {
            return false;
        }
        calls = calls < 0 ? socket->calls() : calls;
        return socket->calls() >= calls + 3;
    };
    const bool isSeen = QTest::qWaitFor(isEmptyListSeen, 20000);
    const bool wasDone = starting.isDone();
    putFile(fileOf(u"seen"_s), "");
    QVERIFY(starting.waitUntilDone());
    QVERIFY(isSeen);
    QVERIFY(!wasDone);
    QCOMPARE(code.load(), int(SessionOk));
    QCOMPARE(password, u"new"_s);
}

void TestStartAction::startRefusesABadId_data()
{
    QTest::addColumn<QString>("badId");
    QTest::newRow("empty") << QString();
    QTest::newRow("31 digits") << testId(1).mid(1);
    QTest::newRow("33 digits") << testId(1) + u'0';
    QTest::newRow("no digit") << u'g' + testId(1).mid(1);
    QTest::newRow("line feed behind") << testId(1) + u'\n';
    QTest::newRow("path") << u"../"_s + testId(1).mid(3);
    QTest::newRow("other script's digit") << QString(QChar(0x0661)) + testId(1).mid(1);
}

void TestStartAction::startRefusesABadId()
{
    QFETCH(QString, badId);
    addAgent(tellState(kReady), {});
    QCOMPARE(start(badId), -94);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Got a bad id"_s});
    QCOMPARE(password, u"untouched"_s);
    QCOMPARE(port, 7);
    QVERIFY(!store->isBusy(badId));
    QVERIFY(QDir(root).isEmpty());
}

void TestStartAction::startRefusesAnIdThatIsBeingStarted()
{
    const QString fifo = folder->filePath(u"fifo"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    programs->add(u"xauth"_s, u"read -r answer < '%1'; exit 1"_s.arg(fifo));
    std::atomic<int> code = SessionOk;
    QString otherPassword;
    quint16 otherPort = 0;
    const BackgroundTask first([&] { code = store->start(id, u"xterm"_s, u"1x1"_s, otherPassword, otherPort); });
    const bool isStarting = waitForFile(fileOf(u"info"_s));
    const int second = start(id);
    const QStringList lines = logger->takeLines();
    QFile writer(fifo);
    const bool isAnswered = writer.open(QIODevice::WriteOnly) && writer.write("go\n") == 3 && writer.flush();
    QVERIFY(first.waitUntilDone());
    QVERIFY(isStarting && isAnswered);
    QCOMPARE(second, -94);
    QCOMPARE(lines, QStringList{u"Warning: Got a bad id"_s});
    QCOMPARE(code.load(), int(WriteFailed));
    QVERIFY(!store->isBusy(id));
}

void TestStartAction::startRefusesABusySession()
{
    addRecord(QString());
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    QCOMPARE(start(id), NoSuchSession);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Got a bad id"_s});
    QVERIFY(store->isBusy(id));
    QVERIFY(!QFileInfo::exists(sessionDirectory(root, id)));
}

void TestStartAction::startWaitsForTheEndOfAPeek()
{
    addRecordOn(displays->end(), QString(), 0, {});
    Session *session = nullptr;
    QCOMPARE(store->tryAcquire(id, session), SessionOk); // as the refresh pass does
    std::atomic<int> code = UnknownError;
    const BackgroundTask starting([&] { code = start(id); });
    QVERIFY(!QTest::qWaitFor([&] { return starting.isDone(); }, 100));
    store->release(id);
    QVERIFY(starting.waitUntilDone());
    QCOMPARE(code.load(), int(AgentFailed)); // the id is accepted; only the program is missing
    QCOMPARE(logger->takeLines().contains(u"Warning: Got a bad id"_s), false);
}

void TestStartAction::startReplacesASession()
{
    addRecordOn(displays->end(), QString(), 5, {});
    addAgent(tellState(kReady), {.onUsr1 = tellState(stateWith(0, u"\"pw\""_s))});
    QCOMPARE(start(id), SessionOk);
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(TEST_heldSessions(), 1);
    QCOMPARE(replay(), SessionOk);
    QCOMPARE(password, u"pw"_s);
}

void TestStartAction::restartedSessionIsListedAsBeforeUntilItsStartEnds()
{
    const AgentProcess earlier(makeSessionDirectory(root, id, displays->end()));
    addListedSession(earlier);
    addAgent(tellState(kReady),
             {.onUsr1 = u"until [ -e seen ]; do sleep 0.01; done\n"_s + tellState(stateWith(0, u"\"pw\""_s))});
    std::atomic<int> code = UnknownError;
    const BackgroundTask starting([&] { code = start(id); });
    const bool isRegistered = waitForFile(fileOf(u"command"_s));
    const QList<SessionInfo> during = refreshed();
    const bool wasDone = starting.isDone();
    putFile(fileOf(u"seen"_s), "");
    QVERIFY(starting.waitUntilDone());
    QVERIFY(isRegistered);
    QVERIFY(!wasDone);
    QCOMPARE(code.load(), int(SessionOk));
    QCOMPARE(TEST_heldSessions(), 1);
    QCOMPARE(during.size(), 1);
    QCOMPARE(during.constFirst().name, u"earlier"_s);

    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    const QList<SessionInfo> after = refreshed();
    store->release(id);
    QCOMPARE(after.size(), 1);
    QCOMPARE(after.constFirst().name, u"xterm -e 'vi  x'"_s);
    QCOMPARE(after.constFirst().permissions, (QStringList{u"retry"_s, u"terminate"_s}));
}

void TestStartAction::restartedSessionThatFailsIsListedAsBeforeUntilTheNextRefresh_data()
{
    QTest::addColumn<bool>("hasApplication");
    QTest::addColumn<int>("expectedCode");
    QTest::newRow("no application") << false << int(ApplicationFailed);
    QTest::newRow("no password in time") << true << int(TimedOut);
}

void TestStartAction::restartedSessionThatFailsIsListedAsBeforeUntilTheNextRefresh()
{
    QFETCH(const bool, hasApplication);
    QFETCH(const int, expectedCode);
    const AgentProcess earlier(makeSessionDirectory(root, id, displays->end()));
    addListedSession(earlier);
    addAgent(tellState(kReady), {});
    if (!hasApplication) {
        programs->remove(u"start-app"_s);
    }
    QCOMPARE(start(id), expectedCode);
    QVERIFY(!store->isBusy(id));

    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    const QList<SessionInfo> before = refreshed(); // the session is busy, so it is not looked at
    store->release(id);
    QCOMPARE(before.size(), 1);
    QCOMPARE(before.constFirst().name, u"earlier"_s);

    const QList<SessionInfo> after = refreshed();
    QCOMPARE(after.size(), 1);
    QCOMPARE(after.constFirst().name, u"xterm -e 'vi  x'"_s);
    QCOMPARE(TEST_heldSessions(), 1);
}

void TestStartAction::restartedSessionThatBreaksIsNotListed()
{
    const AgentProcess earlier(makeSessionDirectory(root, id, displays->end()));
    addListedSession(earlier);
    programs->add(u"start-agent"_s, kBreak);
    QCOMPARE(start(id), ReadFailed);
    QCOMPARE(refreshed().size(), 0);
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestStartAction::restartedSessionThatIsTerminatedIsNotListed()
{
    const AgentProcess earlier(makeSessionDirectory(root, id, displays->end()));
    addListedSession(earlier);
    addAgent(tellState(kReady), {.onUsr1 = tellState(stateWith(0, u"\"pw\""_s)), .onTerm = exitWith(0)});
    QCOMPARE(start(id), SessionOk);
    QCOMPARE(store->terminate(id), SessionOk);
    QCOMPARE(refreshed().size(), 0);
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestStartAction::startWithoutADisplayFails()
{
    store = std::make_unique<SessionStore>(root, displays->first(), displays->first(), QString());
    QCOMPARE(start(id), -89);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to find an open display"_s});
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(id));
    QVERIFY(QDir(root).isEmpty());
}

void TestStartAction::startWithoutADirectoryFails()
{
    QVERIFY(QDir().rmdir(root));
    putFile(root, "a file");
    QCOMPARE(start(id), -87);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to create the directory \"%1\""_s.arg(sessionDirectory(root, id))});
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(id));
}

void TestStartAction::startWithoutItsFilesFails()
{
    QVERIFY(QDir().mkpath(fileOf(u"name"_s)));
    QCOMPARE(start(id), -80);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to open the file \"%1\": Is a directory"_s.arg(fileOf(u"name"_s))});
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(id));
}

void TestStartAction::startWithoutAnAuthorityFails()
{
    programs->add(u"xauth"_s, u"echo 'no authority' >&2; exit 1"_s);
    QCOMPARE(start(id), WriteFailed);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to run the program \"xauth\": no authority"_s});
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(id));
}

void TestStartAction::startWithoutAnAgentFails()
{
    QCOMPARE(start(id), -84);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to start the agent in the directory \"%1\""_s.arg(
                                      sessionDirectory(root, id))});
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(password, u"untouched"_s);
    QCOMPARE(port, 7);
}

void TestStartAction::failedStartKeepsTheEarlierSession()
{
    Session *record = addRecordOn(displays->end(), QString(), 5, {});
    QCOMPARE(start(id), AgentFailed);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    QCOMPARE(session, record);
    QCOMPARE(TEST_heldSessions(), 1);
}

void TestStartAction::sessionThatBreaksAtTheStartIsRemoved()
{
    programs->add(u"start-agent"_s, kBreak);
    QCOMPARE(start(id), -86);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to open the file \"%1\": No such file or directory"_s.arg(
                 fileOf(u"server_exit"_s))});
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
    QVERIFY(!store->isBusy(id));
    QVERIFY(QFileInfo::exists(fileOf(u"display"_s)));
    QVERIFY(!QFileInfo::exists(fileOf(u"command"_s)));
}

void TestStartAction::agentThatEndsBeforeItIsReadyStaysRegistered()
{
    programs->add(u"start-agent"_s, u"printf 0 > server_exit"_s);
    QCOMPARE(start(id), -99);
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(TEST_heldSessions(), 1);
    QVERIFY(!store->isBusy(id));
    QVERIFY(!QFileInfo::exists(fileOf(u"app_log"_s)));
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestStartAction::startWithoutAnApplicationKeepsTheSession()
{
    addAgent(tellState(kReady), {});
    programs->remove(u"start-app"_s);
    QCOMPARE(start(id), -83);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to start the applicaion in the directory \"%1\""_s.arg(
                                      sessionDirectory(root, id))});
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(TEST_heldSessions(), 1);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(password, u"untouched"_s);
}

void TestStartAction::startWithoutAnApplicationLogKeepsTheSession()
{
    addAgent(u"mkdir app_log\n"_s + tellState(kReady), {});
    QCOMPARE(start(id), WriteFailed);
    QCOMPARE(store->sessionIds(), QStringList{id});
    QVERIFY(!store->isBusy(id));
}

void TestStartAction::agentThatTakesNoSignalsKeepsTheSession()
{
    addAgent(u"rm server_pid\n"_s + tellState(kReady), {});
    QCOMPARE(start(id), -86);
    QCOMPARE(logger->takeLines(),
             QStringList{
                 u"Warning: Failed to open the file \"%1\": No such file or directory"_s.arg(fileOf(u"server_pid"_s))});
    QCOMPARE(store->sessionIds(), QStringList{id});
    QVERIFY(!store->isBusy(id));
    QVERIFY(waitForFile(fileOf(u"command"_s)));
}

void TestStartAction::sessionThatBreaksAtTheSignalIsRemoved()
{
    addAgent(tellState(kReady), {.onUsr1 = kBreak});
    QCOMPARE(start(id), ReadFailed);
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
    QVERIFY(!store->isBusy(id));
}

void TestStartAction::agentThatOffersNoPasswordTimesOut()
{
    addAgent(tellState(kReady), {});
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(start(id), -77);
    QVERIFY2(timer.elapsed() >= 15000, "It gives up early");
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(TEST_heldSessions(), 1);
    QVERIFY(!store->isBusy(id));
    QCOMPARE(password, u"untouched"_s);
}

void TestStartAction::displayOfARegisteredSessionIsNotReused()
{
    // As with a slow agent, only the registry knows that the number is taken.
    const QString directory = makeSessionDirectory(root, id, displays->first());
    addRecord(directory);
    QCOMPARE(start(testId(1)), NoOpenDisplay);
    store->removeSession(id);
    QCOMPARE(start(testId(1)), AgentFailed); // there is a display; only the program is missing
}

void TestStartAction::displayOfAFoundSessionIsNotReused()
{
    const QString directory = makeSessionDirectory(root, id, displays->first());
    const AgentProcess agent(directory, u"exec /bin/sleep 1000"_s);
    putFile(fileOf(u"monitor_pid"_s), QByteArray::number(agent.pid()));
    makeStore();
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(start(testId(1)), NoOpenDisplay);
}

void TestStartAction::displayOfAKilledAgentIsReused()
{
    const QString directory = makeSessionDirectory(root, id, displays->first());
    addRecord(directory);
    leaveSocket(agentSocketPath(displays->first()));
    QList<SessionInfo> list;
    store->refreshAll(list);
    QCOMPARE(list.size(), 0);
    QVERIFY(!QFile::exists(agentSocketPath(displays->first())));
    QCOMPARE(start(testId(1)), AgentFailed); // there is a display; only the program is missing
}

ZARVO_TEST(TestStartAction)
#include "tst_startaction.moc"
