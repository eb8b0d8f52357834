// SPDX-License-Identifier: MIT
#include "discovery/announcement.h"
#include "discovery/udptalker.h"
#include "live/sessionstore.h"
#include "rpc/netstring.h"
#include "tests/discovery/peerservice.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/testmain.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QFutureWatcher>
#include <QNetworkDatagram>
#include <QScopeGuard>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QTest>
#include <QThreadPool>
#include <QTimer>
#include <QUdpSocket>
#include <QtConcurrentRun>

#include <memory>

using namespace Qt::StringLiterals;

/** Stands for the other host. 127.0.0.2 works on this machine, but is not an address of an interface. */
class TestUdpTalker : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void announcementsGoToTheBroadcastAddress();
    void updateGoesToTheGivenAddress();
    void userIsReadAtEveryAnnouncement_data();
    void userIsReadAtEveryAnnouncement();
    void helloIsAnsweredToItsSourcePortAndAsked();
    void updateIsAskedAndNotAnswered();
    void everyPendingDatagramIsHandled();
    void announcementsBeyondTheLimitAreIgnored();
    void otherDatagramsAreDropped_data();
    void otherDatagramsAreDropped();
    void ownDatagramsAreDropped();
    void failureForgetsThePeer();
    void unreadableCredentialsLeaveTheListUnchanged_data();
    void unreadableCredentialsLeaveTheListUnchanged();
    void finishedQueriesLeaveNoWatcher();
    void endWaitsForTheQuery();
    void endDropsQueriesThatHaveNotBegun();
    void silentAddressLeavesPlacesToOthers();
    void messageOfAPeerIsLoggedOnOneLine();
    void withoutAPortNothingIsBoundOrSent();
    void updateIsRepeatedEveryFiveMinutes();

private:
    void say(const QByteArray &datagram, QUdpSocket *from = nullptr)
    {
        (from ? from : ear.get())->writeDatagram(datagram, QHostAddress(QHostAddress::LocalHost), socket->localPort());
    }
    [[nodiscard]] QByteArray message(const QString &method, quint16 port) const
    {
        return Announcement{method, port, u"alice"_s}.toDatagram();
    }
    /** The next datagram that the other host receives; empty if none comes. */
    [[nodiscard]] static QByteArray hear(QUdpSocket *at)
    {
        return QTest::qWaitFor([at] { return at->hasPendingDatagrams(); }, 10000) ? at->receiveDatagram().data()
                                                                                  : QByteArray();
    }
    /** Sends a marker and waits for its effect. Everything that was sent before is handled then. */
    void waitUntilHandled();
    [[nodiscard]] QStringList remoteIds() const;
    [[nodiscard]] QString location(const PeerService &peer) const { return u"127.0.0.2:%1"_s.arg(peer.port()); }

    KeyPair pair;
    std::unique_ptr<EnvironmentVariable> user;
    std::unique_ptr<CollectingLogger> log;
    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<SessionStore> store;
    std::unique_ptr<QUdpSocket> ear;    ///< of the other host; receives the broadcasts
    std::unique_ptr<QUdpSocket> socket; ///< of the talker
    std::unique_ptr<UdpTalker> talker;
};

namespace {

const QHostAddress kOtherHost(u"127.0.0.2"_s);
constexpr quint16 kServicePort = 40123;

QByteArray answer(const QByteArray &sessions)
{
    return encodeNetString(R"({"id":"ServerUpdate","jsonrpc":"2.0","result":)" + sessions + "}");
}

void putFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), content.size());
}

} // namespace

void TestUdpTalker::initTestCase()
{
    pair = KeyPair::make();
    QVERIFY(!pair.key.isNull());
}

void TestUdpTalker::init()
{
    user = std::make_unique<EnvironmentVariable>("USER", "alice"_ba);
    log = std::make_unique<CollectingLogger>();
    dir = std::make_unique<QTemporaryDir>();
    putFile(dir->filePath(u"cert"_s), pair.certificateText);
    putFile(dir->filePath(u"key"_s), pair.keyText);
    store = std::make_unique<SessionStore>(dir->filePath(u"sessions"_s), 100, 200, QString());
    ear = std::make_unique<QUdpSocket>();
    QVERIFY(ear->bind(kOtherHost));
    socket = std::make_unique<QUdpSocket>();
    QVERIFY(socket->bind(0, QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint));
    talker = std::make_unique<UdpTalker>(socket.get(), kOtherHost, ear->localPort(), kServicePort, store.get(),
                                         dir->filePath(u"key"_s), dir->filePath(u"cert"_s), nullptr);
}

void TestUdpTalker::cleanup()
{
    talker.reset();
    socket.reset();
    ear.reset();
    store.reset();
    dir.reset();
    log.reset();
    user.reset();
}

void TestUdpTalker::waitUntilHandled()
{
    QStringList lines = log->takeLines();
    QCOMPARE(lines, QStringList());
    say("?");
    QTRY_VERIFY(!(lines += log->takeLines()).isEmpty());
    QCOMPARE(lines, QStringList{u"Warning: Received invalid JSON"_s});
}

QStringList TestUdpTalker::remoteIds() const
{
    QStringList ids;
    for (const SessionInfo &info : store->remoteSessions()) {
        ids << info.id;
    }
    return ids;
}

void TestUdpTalker::announcementsGoToTheBroadcastAddress()
{
    talker->sendHello();
    QCOMPARE(hear(ear.get()), "{\"Method\":\"HELLO\",\"Port\":40123,\"User\":\"alice\"}\n"_ba);
    talker->sendUpdate();
    QCOMPARE(hear(ear.get()), "{\"Method\":\"UPDATE\",\"Port\":40123,\"User\":\"alice\"}\n"_ba);
}

void TestUdpTalker::updateGoesToTheGivenAddress()
{
    QUdpSocket other;
    QVERIFY(other.bind(kOtherHost));
    talker->sendUpdateTo(kOtherHost, other.localPort());
    QCOMPARE(hear(&other), "{\"Method\":\"UPDATE\",\"Port\":40123,\"User\":\"alice\"}\n"_ba);
    QVERIFY(!ear->hasPendingDatagrams());
}

void TestUdpTalker::userIsReadAtEveryAnnouncement_data()
{
    QTest::addColumn<std::optional<QByteArray>>("value");
    QTest::addColumn<QByteArray>("sent");
    QTest::newRow("another") << std::optional("bob"_ba) << "bob"_ba;
    QTest::newRow("letters") << std::optional("älice€"_ba) << "älice€"_ba;
    QTest::newRow("empty") << std::optional(""_ba) << ""_ba;
    QTest::newRow("unset") << std::optional<QByteArray>() << ""_ba;
}

void TestUdpTalker::userIsReadAtEveryAnnouncement()
{
    QFETCH(const std::optional<QByteArray>, value);
    QFETCH(const QByteArray, sent);
    const EnvironmentVariable other("USER", value);
    talker->sendHello();
    QCOMPARE(hear(ear.get()), "{\"Method\":\"HELLO\",\"Port\":40123,\"User\":\"" + sent + "\"}\n");
    PeerService peer(kOtherHost, pair);
    peer.setPieces({answer(R"([{"id":"a"}])")});
    say("{\"Method\":\"UPDATE\",\"Port\":" + QByteArray::number(peer.port()) + ",\"User\":\"" + sent + "\"}");
    QTRY_COMPARE(remoteIds(), QStringList{u"a"_s});
}

void TestUdpTalker::helloIsAnsweredToItsSourcePortAndAsked()
{
    PeerService peer(kOtherHost, pair);
    peer.setPieces({answer(R"([{"id":"a"},{"id":"b"}])")});
    QUdpSocket other;
    QVERIFY(other.bind(kOtherHost));
    say(message(u"HELLO"_s, peer.port()), &other);
    QCOMPARE(hear(&other), message(u"UPDATE"_s, kServicePort));
    QTRY_COMPARE(remoteIds(), (QStringList{u"a"_s, u"b"_s}));
    QCOMPARE(peer.connections(), 1);
    QVERIFY(!other.hasPendingDatagrams());
    QVERIFY(!ear->hasPendingDatagrams());
    // The list is stored under this location only.
    store->forgetRemoteSessions(location(peer));
    QCOMPARE(remoteIds(), QStringList());
    QCOMPARE(log->takeLines(), QStringList());
}

void TestUdpTalker::updateIsAskedAndNotAnswered()
{
    PeerService peer(kOtherHost, pair);
    peer.setPieces({answer(R"([{"id":"a"}])")});
    say(message(u"UPDATE"_s, peer.port()));
    QTRY_COMPARE(remoteIds(), QStringList{u"a"_s});
    peer.setPieces({answer("null")});
    // If this one were answered, the answer would come second.
    say(message(u"HELLO"_s, peer.port()));
    QTRY_COMPARE(remoteIds(), QStringList());
    QCOMPARE(hear(ear.get()), message(u"UPDATE"_s, kServicePort));
    QVERIFY(!ear->hasPendingDatagrams());
    QCOMPARE(peer.connections(), 2);
}

void TestUdpTalker::everyPendingDatagramIsHandled()
{
    // More than one pass reads. All of them arrive before the first is read, so the system has to buffer that many.
    constexpr int kCount = 300;
    socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 400000);
    for (int i = 0; i < kCount; ++i) {
        say("?");
    }
    say(message(u"HELLO"_s, 9)); // handled last
    QCOMPARE(hear(ear.get()), message(u"UPDATE"_s, kServicePort));
    log->tellStrangerLines();
    const QStringList lines = log->takeLines();
    QCOMPARE(lines.count(u"Warning: Received invalid JSON"_s), StrangerLines::kMaxPerMinute);
    QVERIFY(lines.contains(u"Warning: 280 more in the last minute: Received invalid JSON"_s));
}

void TestUdpTalker::announcementsBeyondTheLimitAreIgnored()
{
    // In one pass, so that the share does not grow meanwhile.
    socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 400000);
    PeerService peer(kOtherHost, pair);
    constexpr int kCount = AnnouncementLimit::kPerSecond + 30;
    for (int i = 0; i < kCount; ++i) {
        say(message(u"HELLO"_s, peer.port()));
    }
    say("?"); // handled last
    QStringList lines;
    QTRY_VERIFY((lines += log->takeLines()).contains(u"Warning: Received invalid JSON"_s));
    log->tellStrangerLines();
    lines += log->takeLines();
    const QString ignored = u"Warning: Ignored an announcement from \"127.0.0.2\", because there are too many"_s;
    QCOMPARE(lines.count(ignored), StrangerLines::kMaxPerMinute);
    int answers = 0;
    QTRY_VERIFY(peer.connections() >= AnnouncementLimit::kPerSecond);
    while (ear->hasPendingDatagrams()) {
        QCOMPARE(ear->receiveDatagram().data(), message(u"UPDATE"_s, kServicePort));
        ++answers;
    }
    // A slow machine may need so long that one or two more are allowed.
    QVERIFY(answers >= AnnouncementLimit::kPerSecond);
    QVERIFY(answers < kCount - StrangerLines::kMaxPerMinute + 1);
}

void TestUdpTalker::otherDatagramsAreDropped_data()
{
    QTest::addColumn<QByteArray>("form");
    QTest::newRow("other user") << R"({"Method":"HELLO","Port":%1,"User":"bob"})"_ba;
    QTest::newRow("other letter case") << R"({"Method":"HELLO","Port":%1,"User":"Alice"})"_ba;
    QTest::newRow("longer user") << R"({"Method":"HELLO","Port":%1,"User":"alice\u0000"})"_ba;
    QTest::newRow("no user") << R"({"Method":"HELLO","Port":%1})"_ba;
    QTest::newRow("port as text") << R"({"Method":"HELLO","Port":"%1","User":"alice"})"_ba;
    QTest::newRow("port with a fraction") << R"({"Method":"HELLO","Port":%1.0,"User":"alice"})"_ba;
    QTest::newRow("other method") << R"({"Method":"HELP","Port":%1,"User":"alice"})"_ba;
    QTest::newRow("method in small letters") << R"({"Method":"hello","Port":%1,"User":"alice"})"_ba;
    QTest::newRow("longer method") << R"({"Method":"HELLO\u0000","Port":%1,"User":"alice"})"_ba;
    QTest::newRow("array") << R"([{"Method":"HELLO","Port":%1,"User":"alice"}])"_ba;
}

void TestUdpTalker::otherDatagramsAreDropped()
{
    QFETCH(QByteArray, form);
    PeerService peer(kOtherHost, pair);
    say(form.replace("%1", QByteArray::number(peer.port())));
    waitUntilHandled();
    QCOMPARE(talker->findChildren<QFutureWatcherBase *>().size(), 0);
    QCOMPARE(peer.connections(), 0);
    QVERIFY(!ear->hasPendingDatagrams());
}

void TestUdpTalker::ownDatagramsAreDropped()
{
    PeerService bait(QHostAddress(QHostAddress::LocalHost), pair);
    QUdpSocket own;
    QVERIFY(own.bind(QHostAddress(QHostAddress::LocalHost)));
    say(message(u"HELLO"_s, bait.port()), &own);
    say("no JSON", &own);
    waitUntilHandled();
    QCOMPARE(bait.connections(), 0);
    QVERIFY(!own.hasPendingDatagrams());
}

void TestUdpTalker::failureForgetsThePeer()
{
    PeerService peer(kOtherHost, pair);
    const QDateTime later = QDateTime::currentDateTime().addSecs(1000);
    SessionInfo info;
    info.id = u"a"_s;
    store->storeRemoteSessions(location(peer), later, {info});
    info.id = u"other"_s;
    store->storeRemoteSessions(u"127.0.0.2:1"_s, later, {info});
    peer.setPieces({"3:abcX"});
    say(message(u"UPDATE"_s, peer.port()));
    QTRY_COMPARE(remoteIds(), QStringList{u"other"_s});
    QCOMPARE(log->takeLines(), QStringList{u"Warning: Missing NetString comma"_s});
}

void TestUdpTalker::unreadableCredentialsLeaveTheListUnchanged_data()
{
    QTest::addColumn<QString>("file");
    QTest::newRow("key") << u"key"_s;
    QTest::newRow("certificate") << u"cert"_s;
}

void TestUdpTalker::unreadableCredentialsLeaveTheListUnchanged()
{
    QFETCH(const QString, file);
    PeerService peer(kOtherHost, pair);
    SessionInfo info;
    info.id = u"a"_s;
    store->storeRemoteSessions(location(peer), QDateTime::currentDateTime().addSecs(1000), {info});
    QVERIFY(QFile::remove(dir->filePath(file)));
    say(message(u"UPDATE"_s, peer.port()));
    QStringList lines;
    QTRY_VERIFY(!(lines += log->takeLines()).isEmpty());
    QTRY_VERIFY(talker->findChildren<QFutureWatcherBase *>().isEmpty());
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith(u"Warning: "_s) && lines.first().contains(dir->filePath(file)),
             qPrintable(lines.first()));
    QCOMPARE(remoteIds(), QStringList{u"a"_s});
    QCOMPARE(peer.connections(), 0);
}

void TestUdpTalker::finishedQueriesLeaveNoWatcher()
{
    PeerService peer(kOtherHost, pair);
    peer.setPieces({answer("null")});
    for (int i = 0; i < AnnouncementLimit::kPerSecond; ++i) {
        say(message(u"UPDATE"_s, peer.port()));
    }
    QTRY_COMPARE_WITH_TIMEOUT(peer.connections(), AnnouncementLimit::kPerSecond, 60000);
    QTRY_VERIFY(talker->findChildren<QFutureWatcherBase *>().isEmpty());
    QCOMPARE(log->takeLines(), QStringList());
}

void TestUdpTalker::endWaitsForTheQuery()
{
    PeerService peer(kOtherHost, pair, PeerService::Manner::NeverEncrypts);
    say(message(u"UPDATE"_s, peer.port()));
    QTRY_COMPARE(peer.connections(), 1);
    talker.reset();
    const QStringList lines = log->takeLines();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith(u"Warning: Failed to connect to \"127.0.0.2\" port \"%1\": "_s.arg(peer.port())),
             qPrintable(lines.first()));
}

void TestUdpTalker::endDropsQueriesThatHaveNotBegun()
{
    // Requests that wait for an agent occupy all threads of the pool.
    QThreadPool *pool = QThreadPool::globalInstance();
    QSemaphore answered;
    const int threads = pool->maxThreadCount();
    QList<QFuture<void>> requests;
    for (int i = 0; i < threads; ++i) {
        requests << QtConcurrent::run([&answered] { answered.acquire(); });
    }
    const auto release = qScopeGuard([&] {
        answered.release(threads);
        for (QFuture<void> &request : requests) {
            request.waitForFinished();
        }
    });
    PeerService peer(kOtherHost, pair, PeerService::Manner::NeverEncrypts);
    for (int i = 0; i < 2; ++i) {
        say(message(u"UPDATE"_s, peer.port()));
    }
    QTRY_COMPARE(talker->findChildren<QFutureWatcherBase *>().size(), 2);
    QElapsedTimer timer;
    timer.start();
    talker.reset();
    QVERIFY2(timer.elapsed() < 10000, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(peer.connections(), 0);
    QCOMPARE(log->takeLines(), QStringList());
}

void TestUdpTalker::silentAddressLeavesPlacesToOthers()
{
    PeerService silent(kOtherHost, pair, PeerService::Manner::NeverEncrypts);
    for (int i = 0; i < 40; ++i) {
        say(message(u"UPDATE"_s, silent.port()));
    }
    QTRY_VERIFY(talker->findChildren<QFutureWatcherBase *>().size() > 1);
    const QHostAddress third(u"127.0.0.3"_s);
    PeerService good(third, pair);
    good.setPieces({answer(R"([{"id":"a"}])")});
    QUdpSocket other;
    QVERIFY(other.bind(third));
    say(message(u"UPDATE"_s, good.port()), &other);
    QTRY_COMPARE_WITH_TIMEOUT(remoteIds(), QStringList{u"a"_s}, 10000);
}

void TestUdpTalker::messageOfAPeerIsLoggedOnOneLine()
{
    PeerService peer(kOtherHost, pair);
    peer.setPieces(
        {encodeNetString(R"({"id":"ServerUpdate","jsonrpc":"2.0","error":{"code":1,"message":)"
                         R"("l\u00e4te\r\nFri 1 00:00:00: Info: \u0000\u001b[2J\t\u007f\u0085\u2028\u2029 \\n"}})")});
    say(message(u"UPDATE"_s, peer.port()));
    QStringList lines;
    QTRY_VERIFY(!(lines += log->takeLines()).isEmpty());
    QCOMPARE(lines,
             QStringList{u"Warning: l\u00e4te"_s +
                         R"(\u000d\u000aFri 1 00:00:00: Info: \u0000\u001b[2J\u0009\u007f\u0085\u2028\u2029 \n)"_L1});
}

void TestUdpTalker::updateIsRepeatedEveryFiveMinutes()
{
    const auto timers = talker->findChildren<QTimer *>();
    QCOMPARE(timers.size(), 1);
    QVERIFY(timers.first()->isActive());
    QVERIFY(!timers.first()->isSingleShot());
    QCOMPARE(timers.first()->interval(), 300000);
    QVERIFY(QMetaObject::invokeMethod(timers.first(), "timeout", Qt::DirectConnection));
    QCOMPARE(hear(ear.get()), message(u"UPDATE"_s, kServicePort));
}

void TestUdpTalker::withoutAPortNothingIsBoundOrSent()
{
    QUdpSocket unbound;
    UdpTalker silent(&unbound, kOtherHost, 0, kServicePort, store.get(), QString(), QString(), nullptr);
    const auto timers = silent.findChildren<QTimer *>();
    QCOMPARE(timers.size(), 1);
    QVERIFY(timers.first()->isActive());
    QVERIFY(QMetaObject::invokeMethod(timers.first(), "timeout", Qt::DirectConnection));
    talker->sendUpdate();
    QCOMPARE(hear(ear.get()), message(u"UPDATE"_s, kServicePort));
    QVERIFY(!ear->hasPendingDatagrams());
    QCOMPARE(log->takeLines(), QStringList());
    // If the socket had a port, everybody could reach it.
    QCOMPARE(unbound.state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(unbound.localPort(), 0);
}

ZARVO_TEST(TestUdpTalker)

#include "tst_udptalker.moc"
