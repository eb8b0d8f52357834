// SPDX-License-Identifier: MIT
#include "engine/session.h"
#include "live/sessionstore.h"
#include "tests/helpers/agentprocess.h"
#include "tests/helpers/agentsocket.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/files.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/testmain.h"
#include "workers/suspendchecker.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <limits>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

class TestSuspendChecker : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void idleSessionIsAskedToEnd_data();
    void idleSessionIsAskedToEnd();
    void sessionInUseIsLeftAlone_data();
    void sessionInUseIsLeftAlone();
    void sessionThatIgnoresTheSignalIsAskedAgain();
    void busySessionIsCheckedWhenItIsFree();
    void sessionStaysRegistered();
    void everySessionIsChecked();
    void runningCheckerEndsWithTheObject();

private:
    /** A session whose agent records its signals. */
    struct Running
    {
        ReservedDisplays displays;
        QString directory;
        std::unique_ptr<AgentSocket> socket;
        std::unique_ptr<AgentProcess> agent;
    };

    void addSession(const QString &id, const QByteArray &state);
    void makeStore() { store = std::make_unique<SessionStore>(root->path(), 1, 1, QString()); }
    [[nodiscard]] QByteArray signalsOf(const Running &session) const
    {
        return contentOf(session.directory + u"/signals"_s);
    }
    [[nodiscard]] bool isAsked(const Running &session, int times = 1) const;
    [[nodiscard]] bool isLeftAlone(const Running &session) const;

    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<QTemporaryDir> root;
    std::vector<std::unique_ptr<Running>> running;
    std::unique_ptr<SessionStore> store;
};

namespace {

constexpr int kDeadlineMs = 20000;
constexpr auto kId = "0123456789abcdef0123456789abcdef"_L1;
constexpr auto kOtherId = "fedcba9876543210fedcba9876543210"_L1;

/** The state of an agent whose last client disconnected @p secondsAgo. */
QByteArray stateWith(int clients, int secondsAgo)
{
    const QDateTime time = QDateTime::currentDateTime().addSecs(-secondsAgo);
    return "{\"Clients\": " + QByteArray::number(clients) + ", \"LastDisconnect\": \"" +
           time.toString(u"yyyy-MM-ddThh:mm:ss"_s).toLatin1() + "\"}";
}

} // namespace

void TestSuspendChecker::init()
{
    logger = std::make_unique<CollectingLogger>();
    root = std::make_unique<QTemporaryDir>();
}

void TestSuspendChecker::cleanup()
{
    store.reset();
    running.clear();
    root.reset();
    logger.reset();
}

void TestSuspendChecker::addSession(const QString &id, const QByteArray &state)
{
    auto session = std::make_unique<Running>();
    session->directory = root->filePath("C-"_L1 + id);
    QDir().mkpath(session->directory);
    const quint16 display = session->displays.first();
    session->socket = std::make_unique<AgentSocket>(agentSocketPath(display), state);
    session->agent =
        std::make_unique<AgentProcess>(session->directory, agentScript(QString(), QString(), QString(), QString()));
    putFile(session->directory + u"/display"_s, QByteArray::number(display));
    putFile(session->directory + u"/window_mode"_s, "rootless");
    putFile(session->directory + u"/name"_s, "xterm");
    putFile(session->directory + u"/monitor_pid"_s, QByteArray::number(session->agent->pid()));
    QVERIFY(waitForFile(session->directory + u"/server_pid"_s));
    running.push_back(std::move(session));
}

bool TestSuspendChecker::isAsked(const Running &session, int times) const
{
    const QByteArray expected = QByteArray("TERM\n").repeated(times);
    return QTest::qWaitFor([&] { return signalsOf(session) == expected; }, kDeadlineMs);
}

/** Sends two signals, the second after the agent has recorded the first. By then it has recorded any earlier one. */
bool TestSuspendChecker::isLeftAlone(const Running &session) const
{
    for (int noted = 1; noted <= 2; ++noted) {
        ::kill(session.agent->pid(), SIGUSR1);
        if (!QTest::qWaitFor([&] { return signalsOf(session).count("USR1\n") >= noted; }, kDeadlineMs)) {
            return false;
        }
    }
    return signalsOf(session) == "USR1\nUSR1\n";
}

void TestSuspendChecker::idleSessionIsAskedToEnd_data()
{
    QTest::addColumn<int>("timeout");
    QTest::addColumn<QByteArray>("state");
    QTest::newRow("no client ever, no time") << 0 << QByteArray("{}");
    QTest::newRow("no client ever, long time") << 1000000 << QByteArray("{}");
    QTest::newRow("client just gone, no time") << 0 << stateWith(0, 0);
    QTest::newRow("time is up") << 60 << stateWith(0, 3600);
    QTest::newRow("time is long up") << 1 << stateWith(0, 86400);
}

void TestSuspendChecker::idleSessionIsAskedToEnd()
{
    QFETCH(int, timeout);
    QFETCH(QByteArray, state);
    addSession(kId, state);
    makeStore();
    SuspendChecker checker(store.get(), timeout, nullptr);
    checker.doWork();
    QVERIFY(isAsked(*running[0]));
}

void TestSuspendChecker::sessionInUseIsLeftAlone_data()
{
    QTest::addColumn<int>("timeout");
    QTest::addColumn<QByteArray>("state");
    QTest::newRow("check switched off") << -1 << QByteArray("{}");
    QTest::newRow("check switched off by another number") << std::numeric_limits<int>::min() << stateWith(0, 86400);
    QTest::newRow("time is not up") << 60 << stateWith(0, 3000);
    QTest::newRow("client, no time") << 0 << stateWith(1, 86400);
    QTest::newRow("client, none ever gone") << 0 << QByteArray(R"({"Clients": 1})");
    QTest::newRow("clients") << 1 << stateWith(2, 86400);
}

void TestSuspendChecker::sessionInUseIsLeftAlone()
{
    QFETCH(int, timeout);
    QFETCH(QByteArray, state);
    addSession(kId, state);
    makeStore();
    SuspendChecker checker(store.get(), timeout, nullptr);
    checker.doWork();
    QVERIFY(isLeftAlone(*running[0]));
}

void TestSuspendChecker::sessionThatIgnoresTheSignalIsAskedAgain()
{
    addSession(kId, "{}");
    makeStore();
    SuspendChecker checker(store.get(), 0, nullptr);
    for (int times = 1; times <= 3; ++times) {
        checker.doWork();
        QVERIFY(isAsked(*running[0], times));
    }
}

void TestSuspendChecker::busySessionIsCheckedWhenItIsFree()
{
    addSession(kId, "{}");
    addSession(kOtherId, "{}");
    makeStore();
    SuspendChecker checker(store.get(), 0, nullptr);
    Session *session = nullptr;
    QCOMPARE(store->acquire(kId, session), 0);
    checker.doWork();
    QVERIFY(isAsked(*running[1]));
    QVERIFY(isLeftAlone(*running[0]));
    QVERIFY(store->isBusy(kId));

    QVERIFY(QFile::remove(running[0]->directory + u"/signals"_s));
    store->release(kId);
    QVERIFY(isAsked(*running[0]));
}

void TestSuspendChecker::sessionStaysRegistered()
{
    addSession(kId, "{}");
    makeStore();
    SuspendChecker checker(store.get(), 0, nullptr);
    checker.doWork();
    QVERIFY(isAsked(*running[0]));
    QCOMPARE(store->sessionIds(), QStringList{kId});
    QVERIFY(!store->isBusy(kId));
    QVERIFY(QFile::exists(running[0]->directory));
}

void TestSuspendChecker::everySessionIsChecked()
{
    addSession(kId, "{}");
    addSession(kOtherId, stateWith(0, 86400));
    addSession(u"88888888888888888888888888888888"_s, stateWith(1, 86400));
    makeStore();
    SuspendChecker checker(store.get(), 1, nullptr);
    checker.doWork();
    QVERIFY(isAsked(*running[0]));
    QVERIFY(isAsked(*running[1]));
    QVERIFY(isLeftAlone(*running[2]));
}

void TestSuspendChecker::runningCheckerEndsWithTheObject()
{
    makeStore();
    std::atomic<bool> hasEnded = false;
    {
        SuspendChecker checker(store.get(), 0, nullptr);
        connect(
            &checker, &QThread::finished, &checker, [&] { hasEnded = true; }, Qt::DirectConnection);
        checker.start(QThread::LowPriority);
        QVERIFY(checker.isRunning());
        QVERIFY(!hasEnded);
    }
    QVERIFY(hasEnded);
}

ZARVO_TEST(TestSuspendChecker)

#include "tst_suspendchecker.moc"
