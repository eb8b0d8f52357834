// SPDX-License-Identifier: MIT
#include "agent/door/clientconnection.h"
#include "tests/agent/fakebackend.h"
#include "tests/testmain.h"

#include <QLocalSocket>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <memory>

#include <fcntl.h>
#include <sys/socket.h>

using namespace Qt::StringLiterals;

class ClientConnectionTest final : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;
    QTcpServer server;
    std::unique_ptr<QTcpSocket> client;
    std::unique_ptr<ClientConnection> connection;

    QString path() const { return directory.filePath(u"rfb"_s); }

    void begin()
    {
        client = std::make_unique<QTcpSocket>();
        client->connectToHost(QHostAddress::LocalHost, server.serverPort());
        QTRY_VERIFY(server.hasPendingConnections());
        const std::unique_ptr<QTcpSocket> socket(server.nextPendingConnection());
        connection = std::make_unique<ClientConnection>(
            ::fcntl(static_cast<int>(socket->socketDescriptor()), F_DUPFD_CLOEXEC, 0), u"192.0.2.1"_s);
    }

private slots:
    void initTestCase() { QVERIFY(server.listen(QHostAddress::LocalHost)); }

    void cleanup()
    {
        connection.reset();
        client.reset();
    }

    void bytesAreCopiedBothWays()
    {
        FakeBackend backend(FakeBackend::Manner::Echo);
        QVERIFY(backend.listen(path()));
        begin();
        QCOMPARE(connection->address(), u"192.0.2.1"_s);
        client->write("first ");
        QTRY_COMPARE(client->bytesToWrite(), 0); // before the X server is there
        connection->start(path());
        client->write("second");
        QTRY_COMPARE(client->bytesAvailable(), 12);
        QCOMPARE(client->readAll(), QByteArray("first second"));

        QByteArray large(8 * 1024 * 1024, Qt::Uninitialized);
        for (qsizetype i = 0; i < large.size(); ++i) {
            large[i] = static_cast<char>(i * 7 + i / 251);
        }
        client->write(large);
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += client->readAll()).size() == large.size(), 60000);
        QCOMPARE(received, large);
    }

    void localSocketIsServedAsWell()
    {
        FakeBackend backend(FakeBackend::Manner::Echo);
        QVERIFY(backend.listen(path()));
        std::array<int, 2> ends = {};
        QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()), 0);
        QLocalSocket viewer;
        viewer.setSocketDescriptor(ends[0]);
        connection = std::make_unique<ClientConnection>(ends[1], u"local"_s);
        QSignalSpy ended(connection.get(), &ClientConnection::ended);
        connection->start(path());
        const QByteArray large(4 * 1024 * 1024, 'z');
        viewer.write(large);
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += viewer.readAll()).size() == large.size(), 60000);
        QCOMPARE(received, large);
        viewer.disconnectFromServer();
        QTRY_COMPARE(ended.count(), 1);
        QCOMPARE(ended.first().first().toString(), u"The client closed the connection"_s);
    }

    void clientThatClosesEndsIt()
    {
        FakeBackend backend(FakeBackend::Manner::Echo);
        QVERIFY(backend.listen(path()));
        begin();
        QSignalSpy ended(connection.get(), &ClientConnection::ended);
        connection->start(path());
        client->write("x");
        QTRY_COMPARE(client->bytesAvailable(), 1);
        client->disconnectFromHost();
        QTRY_COMPARE(ended.count(), 1);
        QCOMPARE(ended.first().first().toString(), u"The client closed the connection"_s);
        QTRY_COMPARE(backend.sockets.front()->state(), QLocalSocket::UnconnectedState);
    }

    void backendThatClosesEndsIt()
    {
        FakeBackend backend(FakeBackend::Manner::Echo);
        QVERIFY(backend.listen(path()));
        begin();
        QSignalSpy ended(connection.get(), &ClientConnection::ended);
        connection->start(path());
        client->write("x");
        QTRY_COMPARE(client->bytesAvailable(), 1);
        backend.sockets.front()->abort();
        QTRY_COMPARE(ended.count(), 1);
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
    }

    void backendThatDoesNotServeEndsIt_data()
    {
        QTest::addColumn<bool>("isThere");
        QTest::addColumn<int>("manner");
        QTest::newRow("missing") << false << 0;
        QTest::newRow("refusing") << true << int(FakeBackend::Manner::Refuse);
        QTest::newRow("silent") << true << int(FakeBackend::Manner::Silent);
    }

    void backendThatDoesNotServeEndsIt()
    {
        QFETCH(bool, isThere);
        QFETCH(int, manner);
        FakeBackend backend{FakeBackend::Manner(manner)};
        QVERIFY(!isThere || backend.listen(path()));
        begin();
        client->write("input");
        QSignalSpy ended(connection.get(), &ClientConnection::ended);
        connection->start(path());
        QCOMPARE(ended.count(), 0); // never during start()
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 1, 30000);
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
    }

    // Back-pressure: when the backend does not read, the client is not read either.
    void floodIsHeldBack()
    {
        FakeBackend backend(FakeBackend::Manner::DoNotRead);
        QVERIFY(backend.listen(path()));
        begin();
        connection->start(path());
        QTRY_COMPARE(backend.sockets.size(), size_t{1});
        constexpr qint64 kFlood = 64 * 1024 * 1024;
        client->write(QByteArray(kFlood, 'x'));
        qint64 left = kFlood;
        // Until no byte has moved for half a second. The kernel's buffers take a few MiB.
        while (QTest::qWaitFor([&] { return client->bytesToWrite() < left; }, 500)) {
            left = client->bytesToWrite();
        }
        QVERIFY(left > kFlood - 32 * 1024 * 1024);
        QCOMPARE(client->state(), QAbstractSocket::ConnectedState);
    }
};

ZARVO_TEST(ClientConnectionTest)
#include "tst_clientconnection.moc"
