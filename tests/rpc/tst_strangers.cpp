// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "rpc/clientsocket.h"
#include "rpc/handler.h"
#include "rpc/netstring.h"
#include "rpc/sslserver.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/stranger.h"
#include "tests/helpers/testidentity.h"
#include "tests/rpc/fakemethods.h"
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

using namespace Qt::StringLiterals;

/** Connections of other users, who are not admitted, beside those of our own. */
class TestStrangers : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void strangerWaitsUntilItSpeaks();
    void strangerThatSaysNothingAndGoesLeavesNothing();
    void strangersBelowTheLimitStay();
    void oldestStrangersGoBeyondTheLimit();
    void strangersWithATlsSocketCountAsWell();
    void ownConnectionsDoNotCount();
    void ownClientIsServedBesideManyStrangers();
    void endOfTheServerClosesStrangers();

private:
    void serveConnections();
    /** Lets another user connect so often, and send these bytes on the first connections. */
    [[nodiscard]] std::unique_ptr<Stranger> stranger(int connections, int speakers, const QByteArray &bytes) const;
    void assertOwnClientIsServed();

    QTemporaryDir dir;
    TestIdentity own;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<MethodControl> control;
    std::unique_ptr<SslServer> server;
    int accepted = 0;
};

namespace {

constexpr int kShare = static_cast<int>(StrangerLimit::kMaxPerSource);
constexpr int kPatienceMs = 30000;
const QString kTooMany = u"Warning: Closed the oldest connection of a host that has too many without the certificate"_s;

/** The head of a TLS greeting. The server waits for the rest. */
const QByteArray kGreetingHead = QByteArray::fromHex("16030100c8010000c40303");

} // namespace

void TestStrangers::initTestCase()
{
    if (!canPlayStranger()) {
        QSKIP("only root can play another user");
    }
    QVERIFY(makeTestIdentity(dir, u"own"_s, QString(), &own));
}

void TestStrangers::init()
{
    logger = std::make_unique<CollectingLogger>();
    control = std::make_unique<MethodControl>();
    server = std::make_unique<SslServer>();
    server->setPrivateKey(own.key);
    server->setLocalCertificate(own.certificate);
    QVERIFY(server->listen(QHostAddress::LocalHost));
    connect(server.get(), &SslServer::newConnection, this, &TestStrangers::serveConnections);
    accepted = 0;
    QCOMPARE(TEST_heldConnections(), 0);
}

void TestStrangers::cleanup()
{
    server.reset();
    control.reset();
    logger.reset();
}

void TestStrangers::serveConnections()
{
    while (QTcpSocket *socket = server->nextPendingConnection()) {
        ++accepted;
        auto *handler = new Handler(socket, fakeMethods(control.get()), socket);
        connect(socket, &QAbstractSocket::disconnected, handler, &Handler::retire);
    }
}

std::unique_ptr<Stranger> TestStrangers::stranger(int connections, int speakers, const QByteArray &bytes) const
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(server->serverPort());
    return std::make_unique<Stranger>([=] {
        for (int number = 0; number < connections; ++number) {
            const int client = ::socket(AF_INET, SOCK_STREAM, 0);
            [[maybe_unused]] const int connected =
                ::connect(client, reinterpret_cast<const sockaddr *>(&address), sizeof address);
            if (number < speakers) {
                [[maybe_unused]] const ssize_t sent =
                    ::send(client, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
            }
        }
    });
}

void TestStrangers::assertOwnClientIsServed()
{
    const QByteArray answer = encodeNetString("{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":[1]}\n");
    QSslSocket client;
    QSslConfiguration configuration = client.sslConfiguration();
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    configuration.setLocalCertificate(own.certificate);
    configuration.setPrivateKey(own.key);
    client.setSslConfiguration(configuration);
    client.connectToHostEncrypted(u"127.0.0.1"_s, server->serverPort());
    client.write(encodeNetString(R"({"jsonrpc":"2.0","method":"echo","params":[1],"id":1})"));
    QTRY_COMPARE_WITH_TIMEOUT(client.bytesAvailable(), answer.size(), kPatienceMs);
    QCOMPARE(client.readAll(), answer);
}

void TestStrangers::strangerWaitsUntilItSpeaks()
{
    const auto other = stranger(3, 1, kGreetingHead);
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 1, kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), 3, kPatienceMs); // the silent ones hold the idle timer, too
    QCOMPARE(accepted, 1);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestStrangers::strangerThatSaysNothingAndGoesLeavesNothing()
{
    auto other = stranger(20, 10, kGreetingHead);
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), 20, kPatienceMs);
    other.reset();
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), 0, kPatienceMs);
    QVERIFY(accepted <= 10);
    assertOwnClientIsServed();
}

void TestStrangers::strangersBelowTheLimitStay()
{
    const auto other = stranger(kShare, 0, {});
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), kShare, kPatienceMs);
    assertOwnClientIsServed();
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), kShare, kPatienceMs);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestStrangers::oldestStrangersGoBeyondTheLimit()
{
    const auto other = stranger(kShare + 5, 0, {});
    QStringList lines;
    QTRY_COMPARE_WITH_TIMEOUT((lines += logger->takeLines()).size(), 5, kPatienceMs);
    QCOMPARE(lines.count(kTooMany), 5);
    QCOMPARE(TEST_heldConnections(), kShare);
}

void TestStrangers::strangersWithATlsSocketCountAsWell()
{
    const auto first = stranger(kShare, kShare, kGreetingHead);
    QTRY_COMPARE_WITH_TIMEOUT(accepted, kShare, kPatienceMs);
    QCOMPARE(TEST_heldConnections(), kShare);
    const auto second = stranger(kShare, 0, {});
    QStringList lines;
    QTRY_COMPARE_WITH_TIMEOUT((lines += logger->takeLines()).count(kTooMany), StrangerLines::kMaxPerMinute,
                              kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(server->findChildren<ClientSocket *>().size(), 0, kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), kShare, kPatienceMs);
}

void TestStrangers::ownConnectionsDoNotCount()
{
    std::vector<std::unique_ptr<QTcpSocket>> clients;
    for (int number = 0; number < 2 * kShare; ++number) {
        clients.push_back(std::make_unique<QTcpSocket>());
        clients.back()->connectToHost(QHostAddress(QHostAddress::LocalHost), server->serverPort());
    }
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 2 * kShare, kPatienceMs);
    QCOMPARE(TEST_heldConnections(), 2 * kShare);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestStrangers::ownClientIsServedBesideManyStrangers()
{
    const auto silent = stranger(300, 0, {});
    assertOwnClientIsServed();
    const auto speaking = stranger(300, 300, kGreetingHead);
    assertOwnClientIsServed();
    QTRY_VERIFY_WITH_TIMEOUT(TEST_heldConnections() <= kShare, kPatienceMs);
}

void TestStrangers::endOfTheServerClosesStrangers()
{
    disconnect(server.get(), &SslServer::newConnection, this, &TestStrangers::serveConnections);
    const auto other = stranger(30, 10, kGreetingHead);
    QTRY_COMPARE_WITH_TIMEOUT(server->findChildren<ClientSocket *>().size(), 10, kPatienceMs);
    server.reset();
    QCOMPARE(TEST_heldConnections(), 0);
}

ZARVO_TEST(TestStrangers)

#include "tst_strangers.moc"
