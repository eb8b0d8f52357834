// SPDX-License-Identifier: MIT
#include "agent/door/frontdoor.h"
#include "agent/door/passwordstore.h"
#include "agent/door/vncauth.h"
#include "tests/agent/fakebackend.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** A client that does the handshake by itself, with the password that it gets. */
class Viewer final
{
public:
    Viewer(quint16 port, QByteArray password_, const QHostAddress &host = QHostAddress(QHostAddress::LocalHost))
        : password(std::move(password_))
    {
        QObject::connect(&socket, &QTcpSocket::readyRead, &socket, [this] { read(); });
        socket.connectToHost(host, port);
    }

    bool isIn() const { return received.size() >= 34 && received.mid(30, 4) == QByteArray(4, '\0'); }
    bool isRefused() const { return socket.state() == QAbstractSocket::UnconnectedState && !isIn(); }

    QTcpSocket socket;
    QByteArray received; ///< greeting (12 bytes), types (2), challenge (16), result (4), and what follows

private:
    void read()
    {
        const qsizetype before = received.size();
        received += socket.readAll();
        if (before < 12 && received.size() >= 12) {
            socket.write("RFB 003.008\n\x02");
        }
        if (before < 30 && received.size() >= 30) {
            socket.write(vncAuthResponse(password, received.mid(14, 16)));
        }
    }

    QByteArray password;
};

} // namespace

class FrontDoorTest final : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;
    std::unique_ptr<TestLog> log;
    std::unique_ptr<FakeBackend> backend;
    PasswordStore passwords;
    std::unique_ptr<FrontDoor> door;

    [[nodiscard]] std::unique_ptr<QTcpSocket> connectFrom(const QHostAddress &address) const
    {
        auto socket = std::make_unique<QTcpSocket>();
        socket->bind(address);
        socket->connectToHost(QHostAddress::LocalHost, door->port());
        return socket;
    }

private slots:
    void init()
    {
        log = std::make_unique<TestLog>();
        backend = std::make_unique<FakeBackend>(FakeBackend::Manner::Echo);
        const QString path = directory.filePath(u"rfb"_s);
        QVERIFY(backend->listen(path));
        passwords.takeAll();
        door = std::make_unique<FrontDoor>(&passwords, path, HandshakeLimits{20s, 1ms});
        QString error;
        QVERIFY(door->listen(0, &error));
    }

    void cleanup()
    {
        door.reset();
        backend.reset();
        log.reset();
    }

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

    // The kernel drops a connection that finds the queue full. The client tries again only after 1, 2 or 4 seconds.
    void burstOfConnectionsFindsRoomInTheQueue()
    {
        std::vector<std::unique_ptr<QTcpSocket>> burst;
        for (int i = 0; i < 200; ++i) {
            burst.push_back(connectFrom(QHostAddress(QHostAddress::LocalHost)));
        }
        const auto connected = [&burst] {
            return std::count_if(burst.begin(), burst.end(), [](const std::unique_ptr<QTcpSocket> &socket) {
                return socket->state() == QAbstractSocket::ConnectedState;
            });
        };
        QTRY_COMPARE(connected(), 200);
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

    // With one address alone, its newest connection replaces its oldest.
    void silentConnectionsKeepNobodyOut()
    {
        door->open();
        const QByteArray password = passwords.add().password;
        std::vector<std::unique_ptr<QTcpSocket>> silent;
        for (size_t i = 0; i < FrontDoor::kMaxHandshakes; ++i) {
            silent.push_back(connectFrom(QHostAddress(QHostAddress::LocalHost)));
            QTRY_COMPARE(door->handshakeCount(), i + 1);
        }
        Viewer viewer(door->port(), password);
        QTRY_COMPARE(silent.front()->state(), QAbstractSocket::UnconnectedState);
        QTRY_VERIFY(viewer.isIn());
        for (size_t i = 1; i < silent.size(); ++i) {
            QCOMPARE(silent[i]->state(), QAbstractSocket::ConnectedState);
        }
        QCOMPARE(door->handshakeCount(), FrontDoor::kMaxHandshakes - 1);
        QVERIFY(log->lines.first().startsWith(u"Info: Refused a client from 127.0.0.1: "_s));
    }

    // With several addresses, the one with most handshakes loses its oldest, even if another one has older handshakes.
    void floodFromOneAddressDropsNoOther()
    {
        door->open();
        const std::unique_ptr<QTcpSocket> quiet = connectFrom(QHostAddress(u"127.0.0.2"_s));
        QTRY_COMPARE(door->handshakeCount(), size_t{1});
        std::vector<std::unique_ptr<QTcpSocket>> flood;
        for (size_t i = 0; i < 4 * FrontDoor::kMaxHandshakes; ++i) {
            flood.push_back(connectFrom(QHostAddress(QHostAddress::LocalHost)));
        }
        const auto connected = [&flood] {
            return std::count_if(flood.begin(), flood.end(), [](const std::unique_ptr<QTcpSocket> &socket) {
                return socket->state() == QAbstractSocket::ConnectedState;
            });
        };
        QTRY_COMPARE(static_cast<size_t>(connected()), FrontDoor::kMaxHandshakes - 1);
        QCOMPARE(door->handshakeCount(), FrontDoor::kMaxHandshakes);
        QCOMPARE(quiet->state(), QAbstractSocket::ConnectedState);
    }

    void clientsAreLimited()
    {
        door->open();
        std::vector<std::unique_ptr<Viewer>> viewers;
        for (size_t i = 0; i < FrontDoor::kMaxClients; ++i) {
            viewers.push_back(std::make_unique<Viewer>(door->port(), passwords.add().password));
            QTRY_VERIFY(viewers.back()->isIn());
        }
        Viewer extra(door->port(), passwords.add().password);
        QTRY_VERIFY(extra.isRefused());
        QCOMPARE(door->clientCount(), FrontDoor::kMaxClients);
        QCOMPARE(passwords.all().size(), 1);
    }

    void takenPortIsReported()
    {
        FrontDoor second(&passwords, u"unused"_s);
        QString error;
        QVERIFY(!second.listen(door->port(), &error));
        QVERIFY(error.startsWith(u"Failed to listen on port %1: "_s.arg(door->port())));
    }

    void refusalsDoNotFillTheLog()
    {
        door->open();
        QElapsedTimer elapsed;
        elapsed.start();
        for (int i = 0; i < 50; ++i) {
            QTcpSocket client;
            client.connectToHost(QHostAddress::LocalHost, door->port());
            client.write("GET / HTTP/1.1\r\n\r\n");
            QTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
        }
        QVERIFY(!log->lines.isEmpty());
        QVERIFY(log->lines.size() <= 1 + elapsed.elapsed() / 9000); // one more for each pause that has ended
        QVERIFY(log->lines.first().startsWith(u"Info: Refused a client from 127.0.0.1: "_s));
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
