// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "live/sessionstore.h"
#include "rpc/clientsocket.h"
#include "rpc/handler.h"
#include "rpc/sslserver.h"
#include "server/handlerfactory.h"
#include "server/sslresponder.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/testmain.h"
#include "workers/sessionupdater.h"

#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

class TestSslResponder : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void connectionGetsAHandlerAndALimitedBuffer();
    void eachConnectionOfOnePassGetsAHandler();
    void socketAndHandlerAreDeletedWhenTheClientGoes();
    void otherSendersAreIgnored();

private:
    [[nodiscard]] QList<ClientSocket *> sockets() const { return server->findChildren<ClientSocket *>(); }

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionStore> store;
    std::unique_ptr<SessionUpdater> updater;
    std::unique_ptr<HandlerFactory> factory;
    std::unique_ptr<SslServer> server;
    std::unique_ptr<SslResponder> responder;
};

namespace {

constexpr int kPatienceMs = 30000;

/** Connects without running the event loop, so that the server has not accepted the client yet. */
std::unique_ptr<QTcpSocket> connectClient(const SslServer &server)
{
    auto client = std::make_unique<QTcpSocket>();
    client->connectToHost(u"127.0.0.1"_s, server.serverPort());
    return client->waitForConnected(kPatienceMs) ? std::move(client) : nullptr;
}

} // namespace

void TestSslResponder::init()
{
    dir = std::make_unique<QTemporaryDir>();
    logger = std::make_unique<CollectingLogger>();
    store = std::make_unique<SessionStore>(dir->path(), quint16(100), quint16(200), QString());
    updater = std::make_unique<SessionUpdater>(store.get(), nullptr);
    factory = std::make_unique<HandlerFactory>(store.get(), updater.get());
    responder = std::make_unique<SslResponder>(factory.get(), nullptr);
    server = std::make_unique<SslServer>();
    QVERIFY(server->listen(QHostAddress::LocalHost));
    connect(server.get(), &SslServer::newConnection, responder.get(), &SslResponder::newConnection);
    QCOMPARE(TEST_heldConnections(), 0);
}

void TestSslResponder::cleanup()
{
    server.reset();
    responder.reset();
    factory.reset();
    updater.reset();
    store.reset();
    logger.reset();
    dir.reset();
}

void TestSslResponder::connectionGetsAHandlerAndALimitedBuffer()
{
    const auto client = connectClient(*server);
    QVERIFY(client);
    QTRY_COMPARE_WITH_TIMEOUT(sockets().size(), 1, kPatienceMs);
    const ClientSocket *socket = sockets().constFirst();
    QCOMPARE(socket->findChildren<Handler *>(Qt::FindDirectChildrenOnly).size(), 1);
    QCOMPARE(socket->readBufferSize(), 1048576);
    QCOMPARE(TEST_heldConnections(), 1);
    QVERIFY(!server->hasPendingConnections());
}

void TestSslResponder::eachConnectionOfOnePassGetsAHandler()
{
    constexpr int kClients = 5;
    std::vector<std::unique_ptr<QTcpSocket>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(connectClient(*server));
        QVERIFY(clients.back());
    }
    QCOMPARE(TEST_heldConnections(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), kClients, kPatienceMs);
    QCOMPARE(sockets().size(), kClients);
    for (const ClientSocket *socket : sockets()) {
        QCOMPARE(socket->findChildren<Handler *>(Qt::FindDirectChildrenOnly).size(), 1);
    }
}

void TestSslResponder::socketAndHandlerAreDeletedWhenTheClientGoes()
{
    auto first = connectClient(*server);
    const auto second = connectClient(*server);
    QVERIFY(first && second);
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), 2, kPatienceMs);
    first.reset();
    QTRY_COMPARE_WITH_TIMEOUT(TEST_heldConnections(), 1, kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(sockets().size(), 1, kPatienceMs);
    QCOMPARE(sockets().constFirst()->peerPort(), second->localPort());
}

void TestSslResponder::otherSendersAreIgnored()
{
    QTcpServer plain;
    connect(&plain, &QTcpServer::newConnection, responder.get(), &SslResponder::newConnection);
    QVERIFY(plain.listen(QHostAddress::LocalHost));
    QTcpSocket client;
    client.connectToHost(u"127.0.0.1"_s, plain.serverPort());
    QTRY_VERIFY_WITH_TIMEOUT(plain.hasPendingConnections(), kPatienceMs);
    responder->newConnection(); // there is no sender at all
    QCOMPARE(TEST_heldConnections(), 0);
    QVERIFY(plain.hasPendingConnections());
}

ZARVO_TEST(TestSslResponder)

#include "tst_sslresponder.moc"
