// SPDX-License-Identifier: MIT
#include "rpc/clientsocket.h"
#include "rpc/handler.h"
#include "rpc/netstring.h"
#include "rpc/sslserver.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/testidentity.h"
#include "tests/rpc/fakemethods.h"
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QPointer>
#include <QSignalSpy>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestSslServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void clientWithTheServersCertificateIsServed_data();
    void clientWithTheServersCertificateIsServed();
    void otherClientsAreLoggedAndDisconnected_data();
    void otherClientsAreLoggedAndDisconnected();
    void refusedClientGetsNoUpdates();
    void connectionIsPendingBeforeItsHandshake();
    void clientIsNotAdmittedBeforeItsHandshake();
    void severalClientsAreServedAtOnce();
    void brokenAndSilentClientsDoNotDisturbOthers_data();
    void brokenAndSilentClientsDoNotDisturbOthers();
    void extraCertificatesAreOffered();
    void serverAcceptsAgainWhenDescriptorsAreFree();

private:
    /** A connecting client that presents this identity; none if it is null. */
    [[nodiscard]] std::unique_ptr<QSslSocket> connectClient(const TestIdentity *identity,
                                                            QSsl::SslProtocol protocol = QSsl::SecureProtocols);
    /** Gives every pending connection a handler, as the server does. */
    void serveConnections();

    QTemporaryDir dir;
    TestIdentity own;
    TestIdentity foreign;
    TestIdentity renewed; ///< another certificate with the server's key and name

    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<MethodControl> control;
    std::unique_ptr<SslServer> server;
    QList<QPointer<ClientSocket>> accepted;
    QList<QPointer<Handler>> handlers;
};

namespace {

constexpr int kPatienceMs = 30000;

const QByteArray kRequest = encodeNetString(R"({"jsonrpc":"2.0","method":"echo","params":[1],"id":1})");
const QByteArray kAnswer = encodeNetString("{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":[1]}\n");

/** What a client has received. Waits until it is as much as expected, or nothing more comes. */
QByteArray receive(QSslSocket *client, qsizetype size)
{
    [[maybe_unused]] const bool enough = QTest::qWaitFor(
        [&] { return client->bytesAvailable() >= size || client->state() == QAbstractSocket::UnconnectedState; },
        kPatienceMs);
    return client->readAll();
}

/** While it exists, the process can open no further descriptor. */
class NoFreeDescriptors final
{
public:
    NoFreeDescriptors()
    {
        ::getrlimit(RLIMIT_NOFILE, &previous);
        const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC); // takes the lowest free number
        ::close(next);
        struct rlimit limit = previous;
        limit.rlim_cur = static_cast<rlim_t>(next);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~NoFreeDescriptors() { ::setrlimit(RLIMIT_NOFILE, &previous); }
    Q_DISABLE_COPY_MOVE(NoFreeDescriptors)

private:
    struct rlimit previous = {};
};

} // namespace

void TestSslServer::initTestCase()
{
    QVERIFY(QSslSocket::supportsSsl());
    QVERIFY(makeTestIdentity(dir, u"own"_s, QString(), &own));
    QVERIFY(makeTestIdentity(dir, u"foreign"_s, QString(), &foreign));
    QVERIFY(makeTestIdentity(dir, u"renewed"_s, u"own"_s, &renewed));
}

void TestSslServer::init()
{
    logger = std::make_unique<CollectingLogger>();
    control = std::make_unique<MethodControl>();
    server = std::make_unique<SslServer>();
    server->setPrivateKey(own.key);
    server->setLocalCertificate(own.certificate);
    QVERIFY(server->listen(QHostAddress::LocalHost));
    connect(server.get(), &SslServer::newConnection, this, &TestSslServer::serveConnections);
    accepted.clear();
    handlers.clear();
}

void TestSslServer::cleanup()
{
    server.reset(); // and so its sockets and their handlers
    control.reset();
    logger.reset();
}

void TestSslServer::serveConnections()
{
    while (QTcpSocket *socket = server->nextPendingConnection()) {
        accepted += qobject_cast<ClientSocket *>(socket);
        handlers += new Handler(socket, fakeMethods(control.get()), socket);
    }
}

std::unique_ptr<QSslSocket> TestSslServer::connectClient(const TestIdentity *identity, QSsl::SslProtocol protocol)
{
    auto client = std::make_unique<QSslSocket>();
    QSslConfiguration configuration = client->sslConfiguration();
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    configuration.setProtocol(protocol);
    if (identity) {
        configuration.setLocalCertificate(identity->certificate);
        configuration.setPrivateKey(identity->key);
    }
    client->setSslConfiguration(configuration);
    client->connectToHostEncrypted(u"127.0.0.1"_s, server->serverPort());
    return client;
}

void TestSslServer::clientWithTheServersCertificateIsServed_data()
{
    QTest::addColumn<QSsl::SslProtocol>("protocol");
    QTest::newRow("TLS 1.2") << QSsl::TlsV1_2;
    QTest::newRow("TLS 1.3") << QSsl::TlsV1_3;
}

void TestSslServer::clientWithTheServersCertificateIsServed()
{
    QFETCH(const QSsl::SslProtocol, protocol);
    const auto client = connectClient(&own, protocol);
    client->write(kRequest);
    QCOMPARE(receive(client.get(), kAnswer.size()), kAnswer);
    QCOMPARE(client->sessionProtocol(), protocol);
    QCOMPARE(client->peerCertificate(), own.certificate);
    QVERIFY(accepted.value(0)->isAdmitted());
    handlers.value(0)->writeToDevice("update"_ba);
    QCOMPARE(receive(client.get(), 6), "update"_ba);
    QCOMPARE(logger->takeLines(), QStringList());
    QCOMPARE(client->state(), QAbstractSocket::ConnectedState);
}

void TestSslServer::otherClientsAreLoggedAndDisconnected_data()
{
    QTest::addColumn<QString>("identity");
    QTest::addColumn<QSsl::SslProtocol>("protocol");
    for (const auto &[name, protocol] : {std::pair("TLS 1.2", QSsl::TlsV1_2), std::pair("TLS 1.3", QSsl::TlsV1_3)}) {
        QTest::addRow("no certificate, %s", name) << QString() << protocol;
        QTest::addRow("another certificate, %s", name) << u"foreign"_s << protocol;
        QTest::addRow("another certificate of the same key and name, %s", name) << u"renewed"_s << protocol;
    }
}

void TestSslServer::otherClientsAreLoggedAndDisconnected()
{
    QFETCH(const QString, identity);
    QFETCH(const QSsl::SslProtocol, protocol);
    const TestIdentity *presented = identity.isEmpty() ? nullptr : identity == u"foreign"_s ? &foreign : &renewed;
    const auto client = connectClient(presented, protocol);
    client->write(kRequest);
    QSignalSpy encrypted(client.get(), &QSslSocket::encrypted);
    quint16 port = 0;
    connect(client.get(), &QSslSocket::encrypted, this, [&] { port = client->localPort(); });
    QCOMPARE(receive(client.get(), 1), QByteArray());
    QCOMPARE(encrypted.size(), 1); // the handshake succeeds
    QCOMPARE(client->state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(client->error(), QAbstractSocket::RemoteHostClosedError);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: A unverified client attempted to connect from \"\" port \"%1\""_s.arg(port)});
    QCOMPARE(accepted.size(), 1);
    QVERIFY(!accepted.value(0)->isAdmitted());
    QTRY_COMPARE_WITH_TIMEOUT(accepted.value(0)->state(), QAbstractSocket::UnconnectedState, kPatienceMs);
    QCOMPARE(control->calls, 0);
}

void TestSslServer::refusedClientGetsNoUpdates()
{
    const auto client = connectClient(&foreign);
    QTRY_COMPARE_WITH_TIMEOUT(handlers.size(), 1, kPatienceMs);
    handlers.value(0)->writeToDevice("early"_ba); // before the handshake
    connect(accepted.value(0), &QSslSocket::encrypted, this, [this] { handlers.value(0)->writeToDevice("late"_ba); });
    QCOMPARE(receive(client.get(), 1), QByteArray());
    QCOMPARE(client->state(), QAbstractSocket::UnconnectedState);
}

void TestSslServer::connectionIsPendingBeforeItsHandshake()
{
    QTcpSocket client;
    client.connectToHost(u"127.0.0.1"_s, server->serverPort());
    QTRY_COMPARE_WITH_TIMEOUT(accepted.size(), 1, kPatienceMs); // although the client sends nothing
    QVERIFY(!accepted.value(0)->isEncrypted());
    QCOMPARE(accepted.value(0)->parent(), server.get());
    QVERIFY(accepted.value(0)->isOpen());
}

void TestSslServer::clientIsNotAdmittedBeforeItsHandshake()
{
    QTcpSocket client;
    client.connectToHost(u"127.0.0.1"_s, server->serverPort());
    QTRY_COMPARE_WITH_TIMEOUT(handlers.size(), 1, kPatienceMs);
    QVERIFY(!accepted.value(0)->isAdmitted());
    handlers.value(0)->writeToDevice("update"_ba);
    QCOMPARE(accepted.value(0)->bytesToWrite(), 0);
    client.write(kRequest); // without TLS
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QAbstractSocket::UnconnectedState, kPatienceMs);
    QCOMPARE(control->calls, 0);
    QVERIFY(!client.readAll().contains("update"));
}

void TestSslServer::severalClientsAreServedAtOnce()
{
    std::vector<std::unique_ptr<QSslSocket>> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(connectClient(i == 2 ? &foreign : &own));
        clients.back()->write(kRequest);
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        QCOMPARE(receive(clients[i].get(), kAnswer.size()), i == 2 ? QByteArray() : kAnswer);
    }
    QCOMPARE(accepted.size(), 5);
    QCOMPARE(control->calls, 4);
    QCOMPARE(logger->takeLines().size(), 1);
}

void TestSslServer::brokenAndSilentClientsDoNotDisturbOthers_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("silent") << QByteArray();
    QTest::newRow("another protocol") << "GET / HTTP/1.1\r\n\r\n"_ba;
    QTest::newRow("half a greeting") << QByteArray::fromHex("16030100c8010000");
    QTest::newRow("zeros") << QByteArray(1000, '\0');
}

void TestSslServer::brokenAndSilentClientsDoNotDisturbOthers()
{
    QFETCH(const QByteArray, bytes);
    QTcpSocket broken;
    broken.connectToHost(u"127.0.0.1"_s, server->serverPort());
    broken.write(bytes);
    QTRY_COMPARE_WITH_TIMEOUT(accepted.size(), 1, kPatienceMs);
    const auto client = connectClient(&own);
    client->write(kRequest);
    QCOMPARE(receive(client.get(), kAnswer.size()), kAnswer);
    broken.abort();
    QTRY_COMPARE_WITH_TIMEOUT(accepted.value(0)->state(), QAbstractSocket::UnconnectedState, kPatienceMs);
    client->write(kRequest);
    QCOMPARE(receive(client.get(), kAnswer.size()), kAnswer);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSslServer::extraCertificatesAreOffered()
{
    server->setExtraCertificates({foreign.certificate});
    const auto client = connectClient(&own);
    client->write(kRequest);
    QCOMPARE(receive(client.get(), kAnswer.size()), kAnswer);
    QCOMPARE(client->peerCertificateChain(), (QList<QSslCertificate>{own.certificate, foreign.certificate}));
}

void TestSslServer::serverAcceptsAgainWhenDescriptorsAreFree()
{
    QTcpSocket waiting;
    waiting.connectToHost(u"127.0.0.1"_s, server->serverPort());
    // So far only the kernel has accepted the client. The server accepts it in its event loop.
    QVERIFY(waiting.waitForConnected(kPatienceMs));
    int refused = 0;
    connect(server.get(), &QTcpServer::acceptError, this, [&refused] { ++refused; });
    {
        const NoFreeDescriptors none;
        const QDeadlineTimer deadline(kPatienceMs);
        while (refused == 0 && !deadline.hasExpired()) { // no QTRY_: a sanitizer may need a descriptor for it
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        }
    }
    QCOMPARE(refused, 1);
    QCOMPARE(accepted.size(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(accepted.size(), 1, kPatienceMs);
    const auto client = connectClient(&own);
    client->write(kRequest);
    QCOMPARE(receive(client.get(), kAnswer.size()), kAnswer);
}

ZARVO_TEST(TestSslServer)

#include "tst_sslserver.moc"
