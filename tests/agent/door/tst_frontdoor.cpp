// SPDX-License-Identifier: MIT
#include "tests/agent/doortest.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QLocalSocket>
#include <QNetworkInterface>
#include <QSignalSpy>
#include <QTest>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class FrontDoorTest final : public DoorTest
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void rightPasswordOpensTheBackend()
    {
        door->open();
        QSignalSpy authenticated(door.get(), &FrontDoor::clientAuthenticated);
        QSignalSpy disconnected(door.get(), &FrontDoor::clientsDisconnected);
        const QByteArray password = passwords.add().password;
        Viewer viewer(door->port(), password);
        QTRY_VERIFY(viewer.isIn());
        QCOMPARE(authenticated.count(), 1);
        QCOMPARE(authenticated.first()[0].toString(), u"127.0.0.1"_s);
        QCOMPARE(authenticated.first()[1].toByteArray(), password);
        QCOMPARE(door->clientCount(), size_t{1});
        QCOMPARE(door->handshakeCount(), size_t{0});
        viewer.socket.write("echo");
        QTRY_VERIFY(viewer.received.endsWith("echo"));
        viewer.socket.disconnectFromHost();
        QTRY_COMPARE(disconnected.count(), 1);
        QCOMPARE(disconnected.first().first().toStringList(), QStringList{u"127.0.0.1"_s});
        QCOMPARE(door->clientCount(), size_t{0});
    }

    void listensOnBothFamilies()
    {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHostIPv6)) {
            QSKIP("this machine has no IPv6");
        }
        door->open();
        QSignalSpy authenticated(door.get(), &FrontDoor::clientAuthenticated);
        Viewer viewer(door->port(), passwords.add().password, QHostAddress(QHostAddress::LocalHostIPv6));
        QTRY_VERIFY(viewer.isIn());
        QCOMPARE(authenticated.first()[0].toString(), u"::1"_s);
    }

    void onePasswordLetsOneIn()
    {
        door->open();
        const QByteArray password = passwords.add().password;
        std::vector<std::unique_ptr<Viewer>> viewers;
        for (int i = 0; i < 5; ++i) {
            viewers.push_back(std::make_unique<Viewer>(door->port(), password));
        }
        const auto count = [&viewers](bool (Viewer::*is)() const) {
            return std::count_if(viewers.begin(), viewers.end(),
                                 [is](const auto &viewer) { return ((*viewer).*is)(); });
        };
        QTRY_COMPARE(count(&Viewer::isRefused), 4);
        QTRY_COMPARE(count(&Viewer::isIn), 1);
        QCOMPARE(door->clientCount(), size_t{1});
    }

    void connectionsWaitUntilItIsOpen()
    {
        Viewer viewer(door->port(), passwords.add().password);
        QTRY_COMPARE(viewer.socket.state(), QAbstractSocket::ConnectedState);
        QVERIFY(!QTest::qWaitFor([&viewer] { return !viewer.received.isEmpty(); }, 200));
        door->open();
        QTRY_VERIFY(viewer.isIn());
    }

    void allClientsAreDisconnectedAtOnce()
    {
        door->open();
        QSignalSpy disconnected(door.get(), &FrontDoor::clientsDisconnected);
        door->disconnectClients();
        QCOMPARE(disconnected.count(), 0);
        Viewer first(door->port(), passwords.add().password);
        Viewer second(door->port(), passwords.add().password);
        QTRY_VERIFY(first.isIn() && second.isIn());
        Viewer waiting(door->port(), "nonsense");
        door->disconnectClients();
        QCOMPARE(disconnected.count(), 1);
        QCOMPARE(disconnected.first().first().toStringList().size(), 2);
        QTRY_VERIFY(first.socket.state() == QAbstractSocket::UnconnectedState &&
                    second.socket.state() == QAbstractSocket::UnconnectedState);
        Viewer third(door->port(), passwords.add().password); // the door is still open
        QTRY_VERIFY(third.isIn());
        QCOMPARE(disconnected.count(), 1);
    }

    void closedDoorKeepsItsClients()
    {
        door->open();
        Viewer inside(door->port(), passwords.add().password);
        QTRY_VERIFY(inside.isIn());
        QTcpSocket handshaking;
        handshaking.connectToHost(QHostAddress::LocalHost, door->port());
        QTRY_COMPARE(door->handshakeCount(), size_t{1});
        const quint16 port = door->port();
        door->close();
        QTRY_COMPARE(handshaking.state(), QAbstractSocket::UnconnectedState);
        QCOMPARE(door->clientCount(), size_t{1});
        QTcpSocket late;
        late.connectToHost(QHostAddress::LocalHost, port);
        QTRY_COMPARE(late.error(), QAbstractSocket::ConnectionRefusedError);
    }

    void viewerWithTlsIsServed()
    {
        makeDoorWithTls();
        door->open();
        QSignalSpy authenticated(door.get(), &FrontDoor::clientAuthenticated);
        QSignalSpy disconnected(door.get(), &FrontDoor::clientsDisconnected);
        const QByteArray password = passwords.add().password;
        TlsViewer viewer(door->port());
        QVERIFY(viewer.logIn(password));
        QCOMPARE(authenticated.count(), 1);
        QCOMPARE(authenticated.first()[1].toByteArray(), password);
        QCOMPARE(viewer.socket.peerCertificate().toPem(), pair.certificatePem);
        const QByteArray large(2 * 1024 * 1024, 'z');
        viewer.socket.write(large);
        QVERIFY(viewer.waitFor(large.size()));
        QCOMPARE(viewer.socket.readAll(), large);
        viewer.socket.disconnectFromHost();
        QTRY_COMPARE(disconnected.count(), 1);
        QCOMPARE(disconnected.first().first().toStringList(), QStringList{u"127.0.0.1"_s});
    }

    void viewersWithTlsAreDisconnectedToo()
    {
        makeDoorWithTls();
        door->open();
        TlsViewer viewer(door->port());
        QVERIFY(viewer.logIn(passwords.add().password));
        QSignalSpy disconnected(door.get(), &FrontDoor::clientsDisconnected);
        door->disconnectClients();
        QCOMPARE(disconnected.count(), 1);
        QTRY_COMPARE(viewer.socket.state(), QAbstractSocket::UnconnectedState);
    }

    // The certificate was renewed while the session runs.
    void replacedCertificateIsShown()
    {
        makeDoorWithTls();
        door->open();
        TlsViewer first(door->port());
        QVERIFY(first.logIn(passwords.add().password));
        const TlsPair renewed = TlsPair::make();
        putFile(directory.filePath(u"key"_s), renewed.keyPem);
        putFile(directory.filePath(u"certificate"_s), renewed.certificatePem);
        TlsViewer second(door->port());
        QVERIFY(second.logIn(passwords.add().password));
        QCOMPARE(second.socket.peerCertificate().toPem(), renewed.certificatePem);
        QCOMPARE(first.socket.state(), QAbstractSocket::ConnectedState);
        QCOMPARE(reception->certificates, (QList<QByteArray>{pair.certificatePem, renewed.certificatePem}));
    }

    void localViewerNeedsNoPassword()
    {
        QString error;
        QVERIFY(door->listenLocally(localPath(), &error));
        QSignalSpy authenticated(door.get(), &FrontDoor::clientAuthenticated);
        QSignalSpy disconnected(door.get(), &FrontDoor::clientsDisconnected);
        QLocalSocket viewer;
        viewer.connectToServer(localPath());
        viewer.write("RFB 003.008\n\x01"
                     "echo");
        QTRY_COMPARE(viewer.bytesAvailable(), 12 + 2 + 4 + 4);
        QCOMPARE(viewer.readAll(),
                 QByteArray("RFB 003.008\n") + QByteArray::fromHex("010100000000") + QByteArray("echo"));
        QCOMPARE(authenticated.count(), 1);
        QCOMPARE(authenticated.first()[0].toString(), u"local"_s);
        QVERIFY(authenticated.first()[1].toByteArray().isEmpty());
        QCOMPARE(door->clientCount(), size_t{1});
        QCOMPARE(reception->receivedCount, 0);
        viewer.disconnectFromServer();
        QTRY_COMPARE(disconnected.count(), 1);
        QCOMPARE(disconnected.first().first().toStringList(), QStringList{u"local"_s});
    }

    void localViewerThatMakesNoSenseIsClosed()
    {
        QString error;
        QVERIFY(door->listenLocally(localPath(), &error));
        QLocalSocket viewer;
        viewer.connectToServer(localPath());
        viewer.write("GET / HTTP/1.1\r\n\r\n");
        QTRY_COMPARE(viewer.state(), QLocalSocket::UnconnectedState);
        QTRY_COMPARE(door->handshakeCount(), size_t{0});
        QCOMPARE(door->clientCount(), size_t{0});
    }

    void closedDoorHasNoLocalSocket()
    {
        QString error;
        QVERIFY(door->listenLocally(localPath(), &error));
        QLocalSocket handshaking;
        handshaking.connectToServer(localPath());
        QTRY_COMPARE(door->handshakeCount(), size_t{1});
        door->close();
        QCOMPARE(door->handshakeCount(), size_t{0});
        QTRY_COMPARE(handshaking.state(), QLocalSocket::UnconnectedState);
        QVERIFY(!QFile::exists(localPath()));
    }

    void doorWithoutATcpPortServesLocally()
    {
        door = std::make_unique<FrontDoor>(helpers(), directory.filePath(u"rfb"_s), rules());
        QString error;
        QVERIFY(door->listenLocally(localPath(), &error));
        door->open();
        QCOMPARE(door->port(), quint16{0});
        QLocalSocket viewer;
        viewer.connectToServer(localPath());
        viewer.write("RFB 003.008\n\x01");
        QTRY_COMPARE(door->clientCount(), size_t{1});
    }

    void oneAddressIsBound()
    {
        door = std::make_unique<FrontDoor>(helpers(), directory.filePath(u"rfb"_s), rules());
        QString error;
        QVERIFY(door->listen(address(5), 0, &error));
        door->open();
        QTcpSocket elsewhere;
        elsewhere.connectToHost(QHostAddress::LocalHost, door->port());
        QTRY_COMPARE(elsewhere.error(), QAbstractSocket::ConnectionRefusedError);
        QTcpSocket there;
        there.connectToHost(address(5), door->port());
        QTRY_COMPARE(there.bytesAvailable(), 12);
    }

    void takenPortIsReported()
    {
        FrontDoor second(helpers(), u"unused"_s);
        QString error;
        QVERIFY(!second.listen(QHostAddress::Any, door->port(), &error));
        QVERIFY(error.startsWith(u"Failed to listen on port %1: "_s.arg(door->port())));
    }

    void clientWithoutBackendIsCountedAndDisconnected()
    {
        backend.reset();
        door->open();
        QSignalSpy authenticated(door.get(), &FrontDoor::clientAuthenticated);
        QSignalSpy disconnected(door.get(), &FrontDoor::clientsDisconnected);
        Viewer viewer(door->port(), passwords.add().password);
        QTRY_COMPARE(disconnected.count(), 1);
        QCOMPARE(authenticated.count(), 1);
    }
};

ZARVO_TEST(FrontDoorTest)
#include "tst_frontdoor.moc"
