// SPDX-License-Identifier: MIT
#include "engine/session.h"
#include "live/sessionstore.h"
#include "tests/helpers/agentprocess.h"
#include "tests/helpers/agentsocket.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/files.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/testmain.h"
#include "workers/sessionupdater.h"

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

class TestSessionUpdater : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void firstUpdateIsSentWithoutAnySession();
    void updateListsTheSessionToTheByte();
    void sessionsOfPeersComeFirst();
    void updateIsSentAfterTheWork();
    void everyChangeIsSentOnce();
    void changeOfAnUnlistedFieldIsNotSent();
    void stateThatComesBackIsSentAgain();
    void endedSessionLeavesTheList();
    void expiredPeerLeavesTheList();
    void busySessionDoesNotHoldUpTheWork();
    void runningUpdaterSendsEachChangeOnce();
    void runningUpdaterEmitsOnTheMainThread();
    void helperEmitsWhatItIsGiven();

private:
    [[nodiscard]] QString file(const QString &name) const { return directory + u'/' + name; }
    void makeStore() { store = std::make_unique<SessionStore>(root->path(), 1, 1, u"https://here/"_s); }
    /** Creates a session that reports @p state. Its agent ends with the test. */
    void makeSession(const QByteArray &state);
    /** Lets the updater work once and returns what it sent. */
    [[nodiscard]] QList<QByteArray> sentAfter(SessionUpdater &updater);

    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<QTemporaryDir> root;
    QString directory;
    std::unique_ptr<ReservedDisplays> displays;
    std::unique_ptr<AgentProcess> agent;
    std::unique_ptr<AgentSocket> socket;
    std::unique_ptr<SessionStore> store;
};

namespace {

constexpr int kDeadlineMs = 20000;
constexpr auto kId = "0123456789abcdef0123456789ABCDEF"_L1;
const char kEmptyUpdate[] = "58:{\"jsonrpc\":\"2.0\",\"method\":\"UpdateSessions\",\"params\":null}\n,";

QByteArray frame(const QByteArray &payload)
{
    return QByteArray::number(payload.size()) + ':' + payload + ',';
}

/** The update that lists these sessions, which are JSON objects. */
QByteArray update(const QByteArray &sessions)
{
    return frame("{\"jsonrpc\":\"2.0\",\"method\":\"UpdateSessions\",\"params\":[" + sessions + "]}\n");
}

QByteArray localSession(const QByteArray &lastConnect, const QByteArray &permissions)
{
    return "{\"id\":\"0123456789abcdef0123456789ABCDEF\",\"lastConnect\":\"" + lastConnect +
           "\",\"lastDisconnect\":\"\",\"location\":\"https://here/\",\"name\":\"xterm\",\"permissions\":\"" +
           permissions + "\",\"started\":\"2024-05-06T11:08:09\",\"windowMode\":\"rootless\"}";
}

SessionInfo peerSession(const QString &id)
{
    SessionInfo info;
    info.id = id;
    info.permissions = QStringList{u"terminate"_s};
    return info;
}

QByteArray peerSessionText(const QByteArray &id)
{
    return "{\"id\":\"" + id +
           "\",\"lastConnect\":\"\",\"lastDisconnect\":\"\",\"location\":\"\",\"name\":\"\",\"permissions\":"
           "\"terminate\",\"started\":\"\",\"windowMode\":\"\"}";
}

const char kStarted[] = R"({"Started": "2024-05-06T11:08:09"})";
const char kOffering[] = R"({"Passwords": ["pw"]})";
const char kNotOffering[] = R"({"Passwords": []})";
const char kConnected[] = R"({"Clients": 1, "LastConnect": "2024-05-06T12:08:09"})";

} // namespace

void TestSessionUpdater::init()
{
    logger = std::make_unique<CollectingLogger>();
    root = std::make_unique<QTemporaryDir>();
    directory = root->filePath("C-"_L1 + kId);
}

void TestSessionUpdater::cleanup()
{
    store.reset();
    socket.reset();
    agent.reset();
    displays.reset();
    root.reset();
    logger.reset();
}

void TestSessionUpdater::makeSession(const QByteArray &state)
{
    displays = std::make_unique<ReservedDisplays>();
    socket = std::make_unique<AgentSocket>(agentSocketPath(displays->first()), state);
    QDir().mkpath(directory);
    agent = std::make_unique<AgentProcess>(directory);
    putFile(file(u"display"_s), QByteArray::number(displays->first()));
    putFile(file(u"window_mode"_s), "rootless");
    putFile(file(u"name"_s), "xterm");
    putFile(file(u"monitor_pid"_s), QByteArray::number(agent->pid()));
}

QList<QByteArray> TestSessionUpdater::sentAfter(SessionUpdater &updater)
{
    const QSignalSpy spy(&updater, &SessionUpdater::sendUpdates);
    updater.doWork();
    QCoreApplication::sendPostedEvents(&updater, QEvent::MetaCall);
    QList<QByteArray> sent;
    for (const QList<QVariant> &arguments : spy) {
        sent.append(arguments.constFirst().toByteArray());
    }
    return sent;
}

void TestSessionUpdater::firstUpdateIsSentWithoutAnySession()
{
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    QCOMPARE(sentAfter(updater), QList<QByteArray>{kEmptyUpdate});
    QCOMPARE(sentAfter(updater), QList<QByteArray>());
}

void TestSessionUpdater::updateListsTheSessionToTheByte()
{
    makeSession(kStarted);
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    QCOMPARE(sentAfter(updater), QList<QByteArray>{update(localSession("", "connect|terminate"))});
    QCOMPARE(sentAfter(updater), QList<QByteArray>());
}

void TestSessionUpdater::sessionsOfPeersComeFirst()
{
    makeSession(kStarted);
    makeStore();
    const QDateTime later = QDateTime::currentDateTime().addSecs(3600);
    store->storeRemoteSessions(u"peer 2"_s, later, {peerSession(u"ffffffffffffffffffffffffffffffff"_s)});
    store->storeRemoteSessions(
        u"peer 1"_s, later,
        {peerSession(u"fffffffffffffffffffffffffffffffe"_s), peerSession(u"00000000000000000000000000000000"_s)});
    SessionUpdater updater(store.get(), nullptr);
    QCOMPARE(sentAfter(updater), QList<QByteArray>{update(peerSessionText("fffffffffffffffffffffffffffffffe") + ',' +
                                                          peerSessionText("00000000000000000000000000000000") + ',' +
                                                          peerSessionText("ffffffffffffffffffffffffffffffff") + ',' +
                                                          localSession("", "connect|terminate"))});
}

void TestSessionUpdater::updateIsSentAfterTheWork()
{
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    const QSignalSpy spy(&updater, &SessionUpdater::sendUpdates);
    updater.doWork();
    QCOMPARE(spy.count(), 0);
    QCoreApplication::sendPostedEvents(&updater, QEvent::MetaCall);
    QCOMPARE(spy.count(), 1);
}

void TestSessionUpdater::everyChangeIsSentOnce()
{
    makeSession(kStarted);
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    QCOMPARE(sentAfter(updater).size(), 1);

    const QList<std::pair<QByteArray, QByteArray>> steps = {
        {kOffering, localSession("", "retry|terminate")},
        {kConnected, localSession("2024-05-06T12:08:09", "disconnect|terminate")},
    };
    for (const auto &[state, session] : steps) {
        socket->setState(state);
        QCOMPARE(sentAfter(updater), QList<QByteArray>{update(session)});
        QCOMPARE(sentAfter(updater), QList<QByteArray>());
        QCOMPARE(sentAfter(updater), QList<QByteArray>());
    }
}

void TestSessionUpdater::changeOfAnUnlistedFieldIsNotSent()
{
    makeSession(kStarted);
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    QCOMPARE(sentAfter(updater).size(), 1);
    const int calls = socket->calls();
    socket->setState(R"({"ScreenWidth": 1024, "ScreenHeight": 768})");
    QCOMPARE(sentAfter(updater), QList<QByteArray>());
    QCOMPARE(socket->calls(), calls + 1);
}

void TestSessionUpdater::stateThatComesBackIsSentAgain()
{
    makeSession(kStarted);
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    const QList<QByteArray> first = sentAfter(updater);
    QCOMPARE(first.size(), 1);
    socket->setState(kOffering);
    QCOMPARE(sentAfter(updater).size(), 1);
    socket->setState(kNotOffering);
    QCOMPARE(sentAfter(updater), first);
}

void TestSessionUpdater::endedSessionLeavesTheList()
{
    makeSession(kStarted);
    putFile(file(u"server_exit"_s), "0");
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    QCOMPARE(sentAfter(updater).size(), 1);
    agent->end();
    QCOMPARE(sentAfter(updater), QList<QByteArray>{kEmptyUpdate});
    QVERIFY(!QFile::exists(directory));
}

void TestSessionUpdater::expiredPeerLeavesTheList()
{
    makeStore();
    const QList<SessionInfo> list = {peerSession(u"ffffffffffffffffffffffffffffffff"_s)};
    store->storeRemoteSessions(u"peer"_s, QDateTime::currentDateTime().addSecs(3600), list);
    SessionUpdater updater(store.get(), nullptr);
    QCOMPARE(sentAfter(updater), QList<QByteArray>{update(peerSessionText("ffffffffffffffffffffffffffffffff"))});
    store->storeRemoteSessions(u"peer"_s, QDateTime::currentDateTime().addSecs(-1), list);
    QCOMPARE(sentAfter(updater), QList<QByteArray>{kEmptyUpdate});
}

void TestSessionUpdater::busySessionDoesNotHoldUpTheWork()
{
    makeSession(kStarted);
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    QCOMPARE(sentAfter(updater).size(), 1);
    Session *session = nullptr;
    QCOMPARE(store->acquire(kId, session), 0);
    socket->setState(kOffering);
    QCOMPARE(sentAfter(updater), QList<QByteArray>());
    store->release(kId);
    QCOMPARE(sentAfter(updater), QList<QByteArray>{update(localSession("", "retry|terminate"))});
}

void TestSessionUpdater::runningUpdaterSendsEachChangeOnce()
{
    makeSession(kStarted);
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    const QSignalSpy spy(&updater, &SessionUpdater::sendUpdates);
    // Every tick asks the agent once.
    const auto someTicks = [this] {
        const int calls = socket->calls();
        return QTest::qWaitFor([this, calls] { return socket->calls() >= calls + 3; }, kDeadlineMs);
    };
    updater.start(QThread::LowPriority);
    QVERIFY(someTicks());
    QCOMPARE(spy.count(), 1);
    socket->setState(kConnected);
    QVERIFY(someTicks());
    QCOMPARE(spy.count(), 2);
    QCOMPARE(spy.at(1).constFirst().toByteArray(), update(localSession("2024-05-06T12:08:09", "disconnect|terminate")));
}

void TestSessionUpdater::runningUpdaterEmitsOnTheMainThread()
{
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    QThread *thread = nullptr;
    connect(
        &updater, &SessionUpdater::sendUpdates, &updater, [&thread] { thread = QThread::currentThread(); },
        Qt::DirectConnection);
    updater.start(QThread::LowPriority);
    QTRY_VERIFY_WITH_TIMEOUT(thread, kDeadlineMs);
    QCOMPARE(thread, QCoreApplication::instance()->thread());
}

void TestSessionUpdater::helperEmitsWhatItIsGiven()
{
    makeStore();
    SessionUpdater updater(store.get(), nullptr);
    const QSignalSpy spy(&updater, &SessionUpdater::sendUpdates);
    updater.sendUpdatesHelper(QByteArray("a\0b", 3));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).constFirst().toByteArray(), QByteArray("a\0b", 3));
}

ZARVO_TEST(TestSessionUpdater)

#include "tst_sessionupdater.moc"
