// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "live/sessionstore.h"
#include "tests/engine/fakeprograms.h"
#include "tests/engine/leftsocket.h"
#include "tests/engine/reserveddisplays.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
#include "tests/live/signalrecorder.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <functional>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestSessionActions : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void startHandsOutAPasswordAndThePort();
    void startedSessionIsListedAndReplayed();
    void startedSessionIsListedAlsoWhenItIsBusyAtOnce();
    void startKeepsTheCaseOfTheId();
    void startOfARootlessSession();
    void startHandsOutTheLastPassword();
    void startWaitsForAPasswordThatIsThere();
    void startRefusesABadId_data();
    void startRefusesABadId();
    void startRefusesAnIdThatIsBeingStarted();
    void startRefusesABusySession();
    void startWaitsForTheEndOfALook();
    void startReplacesASession();
    void startWithoutADisplayFails();
    void startWithoutADirectoryFails();
    void startWithoutItsFilesFails();
    void startWithoutAnAuthorityFails();
    void startWithoutAnAgentFails();
    void failedStartKeepsTheEarlierSession();
    void brokenAgentIsForgotten();
    void agentThatEndsBeforeItIsReadyStaysRegistered();
    void startWithoutAnApplicationKeepsTheSession();
    void startWithoutAnApplicationLogKeepsTheSession();
    void agentThatTakesNoSignalsKeepsTheSession();
    void agentThatBreaksAtTheSignalIsForgotten();
    void agentThatOffersNoPasswordTimesOut();

    void resumeHandsOutANewPassword();
    void resumeOfAnUnknownSizeTellsSo();
    void resumeIsRefusedInOtherStates_data();
    void resumeIsRefusedInOtherStates();
    void resumeWithoutASignalFails_data();
    void resumeWithoutASignalFails();
    void resumeOfAnAgentThatBreaksForgetsIt();
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
    void suspendOfAnAgentThatBreaksForgetsIt();

    void terminateRemovesTheSession_data();
    void terminateRemovesTheSession();
    void terminateKeepsTheDirectoryOfAFailure();
    void terminateKeepsASubdirectory();
    void terminateWithoutASignalFails();
    void terminateOfAnAgentThatBreaksForgetsIt();
    void actionsOnUnknownIdsFail_data();
    void actionsOnUnknownIdsFail();
    void actionsOnARemovedSessionFail_data();
    void actionsOnARemovedSessionFail();

    void idleSessionIsAskedToEnd_data();
    void displayOfARegisteredSessionIsNotGivenAway();
    void displayOfASessionFoundAgainIsNotGivenAway();
    void displayOfAKilledAgentIsGivenAwayAgain();
    void idleSessionIsAskedToEnd();
    void busySessionIsNotAskedToEnd();
    void everyIdleSessionIsAskedToEnd();

private:
    using Action = std::function<int(SessionStore &, const QString &)>;

    /** The program "start-agent" as a script that tells its state on the display's socket. */
    void addAgent(const QString &preparation, const AgentManner &manner);
    [[nodiscard]] int start(const QString &id);
    [[nodiscard]] QString fileOf(const QString &name) const { return sessionDirectory(root, id) + u'/' + name; }

    /**
     * Adds a session in this state whose agent is not there to answer; its directory takes signals for it. It has the
     * one display that there is.
     */
    Session *addRecord(const QString &directory, qint32 clients = 0, const QStringList &passwords = {})
    {
        return addRecordOn(displays->first(), directory, clients, passwords);
    }
    Session *addRecordOn(quint16 display, const QString &directory, qint32 clients, const QStringList &passwords);
    [[nodiscard]] int resume();
    [[nodiscard]] int replay();
    void makeStore();

    const QString id = testId(0xa);
    std::unique_ptr<ReservedDisplays> displays;
    std::unique_ptr<QTemporaryDir> folder;
    QString root;
    std::unique_ptr<FakePrograms> programs;
    std::unique_ptr<AgentSocket> socket; ///< of the agent that a start makes
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionStore> store;

    QString windowMode;
    QString geometry;
    QString password;
    quint16 port = 0;
};

namespace {

const QString kReady = u"{\"Started\":\"2024-01-02T03:04:05\",\"Clients\":0,\"Passwords\":[]}"_s;

QString stateWith(int clients, const QString &passwords)
{
    return u"{\"Started\":\"2024-01-02T03:04:05\",\"Clients\":%1,\"Passwords\":[%2],"
           "\"ScreenWidth\":800,\"ScreenHeight\":600}"_s.arg(QString::number(clients), passwords);
}

/** An agent that ends without a word about how. */
const QString kBreak = u"exit 3"_s;

} // namespace

void TestSessionActions::init()
{
    logger = std::make_unique<CollectingLogger>();
    displays = std::make_unique<ReservedDisplays>();
    folder = std::make_unique<QTemporaryDir>();
    root = folder->filePath(u"sessions"_s);
    QVERIFY(QDir().mkdir(root));
    programs = std::make_unique<FakePrograms>();
    programs->add(u"xauth"_s, u"exit 0"_s);
    programs->add(u"start-app"_s, u"printf %s \"$*\" > command.new; mv command.new command"_s);
    windowMode = geometry = password = u"untouched"_s;
    port = 7;
    makeStore();
}

void TestSessionActions::cleanup()
{
    store.reset();
    QCOMPARE(TEST_heldSessions(), 0);
    programs.reset();
    endStartedAgent(sessionDirectory(root, id));
    folder.reset();
    socket.reset();
    displays.reset();
    logger.reset();
}

void TestSessionActions::makeStore()
{
    store = std::make_unique<SessionStore>(root, displays->first(), displays->end(), QString());
}

void TestSessionActions::addAgent(const QString &preparation, const AgentManner &manner)
{
    const QString path = folder->filePath(u"socket"_s);
    socket = std::make_unique<AgentSocket>(path);
    socket->setStateFile(fileOf(u"state"_s));
    // The socket must not be there before the agent, for the display would count as used.
    programs->add(u"start-agent"_s, u"printf '%s,' \"$@\" > arguments\n"
                                    "ln -s '%1' /tmp/Xrdp_$(($2 - 41000)).sock\n"_s.arg(path) +
                                        agentScript(preparation, manner.onUsr1, manner.onUsr2, manner.onTerm));
}

int TestSessionActions::start(const QString &startId)
{
    return store->start(startId, u"xterm -e 'vi  x'"_s, u"1024x768"_s, password, port);
}

int TestSessionActions::resume()
{
    return store->resume(id, windowMode, geometry, password, port);
}

int TestSessionActions::replay()
{
    return store->replay(id, windowMode, geometry, password, port);
}

Session *TestSessionActions::addRecordOn(quint16 display, const QString &directory, qint32 clients,
                                         const QStringList &passwords)
{
    auto session = std::make_unique<Session>();
    Session *record = session.get();
    record->directory = directory;
    record->display = display;
    record->windowMode = u"desktop"_s;
    record->clients = clients;
    record->passwords = passwords;
    record->screenSize = QSize(640, 480);
    store->addSession(id, std::move(session));
    store->release(id);
    return record;
}

void TestSessionActions::startHandsOutAPasswordAndThePort()
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

void TestSessionActions::startedSessionIsListedAndReplayed()
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

void TestSessionActions::startedSessionIsListedAlsoWhenItIsBusyAtOnce()
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

void TestSessionActions::startKeepsTheCaseOfTheId()
{
    const QString upper = u"ABCDEFabcdef00000000000000000000"_s;
    programs->add(u"start-agent"_s, kBreak);
    QCOMPARE(start(upper), ReadFailed);
    QVERIFY(QFileInfo::exists(root + u"/C-"_s + upper + u"/display"_s));
}

void TestSessionActions::startOfARootlessSession()
{
    addAgent(tellState(kReady), {.onUsr1 = tellState(stateWith(0, u"\"pw\""_s))});
    QCOMPARE(store->start(id, u"xterm"_s, u"rootless"_s, password, port), SessionOk);
    QCOMPARE(replay(), SessionOk);
    QCOMPARE(windowMode, u"rootless"_s);
    QVERIFY(contentOf(fileOf(u"arguments"_s)).startsWith("rootless,"));
}

void TestSessionActions::startHandsOutTheLastPassword()
{
    addAgent(tellState(stateWith(0, u"\"old\""_s)), {.onUsr1 = tellState(stateWith(0, u"\"old\",\"new\""_s))});
    QCOMPARE(start(id), SessionOk);
    QCOMPARE(password, u"new"_s);
}

void TestSessionActions::startWaitsForAPasswordThatIsThere()
{
    // A client uses the password that was there before, and only then comes the one that was asked for.
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

void TestSessionActions::startRefusesABadId_data()
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

void TestSessionActions::startRefusesABadId()
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

void TestSessionActions::startRefusesAnIdThatIsBeingStarted()
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

void TestSessionActions::startRefusesABusySession()
{
    addRecord(QString());
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    QCOMPARE(start(id), NoSuchSession);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Got a bad id"_s});
    QVERIFY(store->isBusy(id));
    QVERIFY(!QFileInfo::exists(sessionDirectory(root, id)));
}

void TestSessionActions::startWaitsForTheEndOfALook()
{
    addRecordOn(displays->end(), QString(), 0, {});
    Session *session = nullptr;
    QCOMPARE(store->tryAcquire(id, session), SessionOk); // as the refresh pass does, many times a minute
    std::atomic<int> code = UnknownError;
    const BackgroundTask starting([&] { code = start(id); });
    QVERIFY(!QTest::qWaitFor([&] { return starting.isDone(); }, 100));
    store->release(id);
    QVERIFY(starting.waitUntilDone());
    QCOMPARE(code.load(), int(AgentFailed)); // there is no program for it, but it is let in
    QCOMPARE(logger->takeLines().contains(u"Warning: Got a bad id"_s), false);
}

void TestSessionActions::startReplacesASession()
{
    addRecordOn(displays->end(), QString(), 5, {});
    addAgent(tellState(kReady), {.onUsr1 = tellState(stateWith(0, u"\"pw\""_s))});
    QCOMPARE(start(id), SessionOk);
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(TEST_heldSessions(), 1);
    QCOMPARE(replay(), SessionOk);
    QCOMPARE(password, u"pw"_s);
}

void TestSessionActions::startWithoutADisplayFails()
{
    store = std::make_unique<SessionStore>(root, displays->first(), displays->first(), QString());
    QCOMPARE(start(id), -89);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to find an open display"_s});
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(id));
    QVERIFY(QDir(root).isEmpty());
}

void TestSessionActions::startWithoutADirectoryFails()
{
    QVERIFY(QDir().rmdir(root));
    putFile(root, "a file");
    QCOMPARE(start(id), -87);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to create the directory \"%1\""_s.arg(sessionDirectory(root, id))});
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(id));
}

void TestSessionActions::startWithoutItsFilesFails()
{
    QVERIFY(QDir().mkpath(fileOf(u"name"_s)));
    QCOMPARE(start(id), -80);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to open the file \"%1\": Is a directory"_s.arg(fileOf(u"name"_s))});
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(id));
}

void TestSessionActions::startWithoutAnAuthorityFails()
{
    programs->add(u"xauth"_s, u"echo 'no authority' >&2; exit 1"_s);
    QCOMPARE(start(id), WriteFailed);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to run the program \"xauth\": no authority"_s});
    QCOMPARE(store->sessionIds(), QStringList());
    QVERIFY(!store->isBusy(id));
}

void TestSessionActions::startWithoutAnAgentFails()
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

void TestSessionActions::failedStartKeepsTheEarlierSession()
{
    Session *record = addRecordOn(displays->end(), QString(), 5, {});
    QCOMPARE(start(id), AgentFailed);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    QCOMPARE(session, record);
    QCOMPARE(TEST_heldSessions(), 1);
}

void TestSessionActions::brokenAgentIsForgotten()
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

void TestSessionActions::agentThatEndsBeforeItIsReadyStaysRegistered()
{
    programs->add(u"start-agent"_s, u"printf 0 > server_exit"_s);
    QCOMPARE(start(id), -99);
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(TEST_heldSessions(), 1);
    QVERIFY(!store->isBusy(id));
    QVERIFY(!QFileInfo::exists(fileOf(u"app_log"_s)));
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSessionActions::startWithoutAnApplicationKeepsTheSession()
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

void TestSessionActions::startWithoutAnApplicationLogKeepsTheSession()
{
    addAgent(u"mkdir app_log\n"_s + tellState(kReady), {});
    QCOMPARE(start(id), WriteFailed);
    QCOMPARE(store->sessionIds(), QStringList{id});
    QVERIFY(!store->isBusy(id));
}

void TestSessionActions::agentThatTakesNoSignalsKeepsTheSession()
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

void TestSessionActions::agentThatBreaksAtTheSignalIsForgotten()
{
    addAgent(tellState(kReady), {.onUsr1 = kBreak});
    QCOMPARE(start(id), ReadFailed);
    QCOMPARE(store->sessionIds(), QStringList());
    QCOMPARE(TEST_heldSessions(), 0);
    QVERIFY(!store->isBusy(id));
}

void TestSessionActions::agentThatOffersNoPasswordTimesOut()
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

void TestSessionActions::resumeOfAnUnknownSizeTellsSo()
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
    QTest::newRow("nobody") << QByteArray("2147483647") << -99;
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

void TestSessionActions::resumeOfAnAgentThatBreaksForgetsIt()
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

void TestSessionActions::suspendOfAnAgentThatBreaksForgetsIt()
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

void TestSessionActions::terminateOfAnAgentThatBreaksForgetsIt()
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

void TestSessionActions::idleSessionIsAskedToEnd_data()
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

void TestSessionActions::displayOfARegisteredSessionIsNotGivenAway()
{
    // Its agent is slow: nothing on the system shows yet that the number is taken.
    const QString directory = makeSessionDirectory(root, id, displays->first());
    addRecord(directory);
    QCOMPARE(start(testId(1)), NoOpenDisplay);
    store->removeSession(id);
    QCOMPARE(start(testId(1)), AgentFailed); // there is no program for it, but a display
}

void TestSessionActions::displayOfASessionFoundAgainIsNotGivenAway()
{
    const QString directory = makeSessionDirectory(root, id, displays->first());
    const AgentProcess agent(directory, u"exec /bin/sleep 1000"_s);
    putFile(fileOf(u"monitor_pid"_s), QByteArray::number(agent.pid()));
    makeStore();
    QCOMPARE(store->sessionIds(), QStringList{id});
    QCOMPARE(start(testId(1)), NoOpenDisplay);
}

void TestSessionActions::displayOfAKilledAgentIsGivenAwayAgain()
{
    const QString directory = makeSessionDirectory(root, id, displays->first());
    addRecord(directory);
    leaveSocket(agentSocketPath(displays->first()));
    QList<SessionInfo> list;
    store->refreshAll(list);
    QCOMPARE(list.size(), 0);
    QVERIFY(!QFile::exists(agentSocketPath(displays->first())));
    QCOMPARE(start(testId(1)), AgentFailed); // there is no program for it, but a display
}

void TestSessionActions::idleSessionIsAskedToEnd()
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

void TestSessionActions::busySessionIsNotAskedToEnd()
{
    const QString directory = makeSessionDirectory(root, id, displays->first());
    const SignalRecorder recorder(directory);
    putFile(directory + u"/server_pid"_s, QByteArray::number(recorder.pid()));
    addRecord(directory);
    Session *session = nullptr;
    QCOMPARE(store->acquire(id, session), SessionOk);
    store->suspendIdle(0);
    QCOMPARE(recorder.received(), QList<int>());
    QVERIFY(store->isBusy(id));

    store->release(id);
    store->suspendIdle(0);
    QCOMPARE(recorder.received(), QList<int>{SIGTERM});
}

void TestSessionActions::everyIdleSessionIsAskedToEnd()
{
    // The first cannot be signalled, which is of no concern for the next.
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

ZARVO_TEST(TestSessionActions)
#include "tst_sessionactions.moc"
