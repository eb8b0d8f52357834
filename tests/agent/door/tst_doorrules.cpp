// SPDX-License-Identifier: MIT
#include "tests/agent/doortest.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QLocalSocket>
#include <QNetworkInterface>
#include <QSignalSpy>
#include <QTest>

#include <chrono>

#include <arpa/inet.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class DoorRulesTest final : public DoorTest
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

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

    // They send nothing, and more of them than have a place.
    void silentStrangersKeepNobodyOut()
    {
        door->open();
        const QByteArray password = passwords.add().password;
        std::vector<std::unique_ptr<QTcpSocket>> silent;
        for (qsizetype i = 0; i < FrontDoor::kMaxStrangers + 10; ++i) {
            silent.push_back(connectFrom(address(2)));
        }
        QTRY_COMPARE(countConnected(silent), FrontDoor::kMaxStrangers);
        QCOMPARE(reception->receivedCount, 0);
        Viewer viewer(door->port(), password, QHostAddress(QHostAddress::LocalHost), address(256 + 3));
        QTRY_VERIFY(viewer.isIn()); // of another network, so it is not the one that goes
        QTRY_COMPARE(countConnected(silent), FrontDoor::kMaxStrangers - 1);
        QVERIFY(log->lines.first().startsWith(u"Info: Refused a client from 127.0.0.2: "_s));
    }

    // Another address of the same network is spared, because the flood has most.
    void floodFromOneAddressDropsNoOther()
    {
        door->open();
        const std::unique_ptr<QTcpSocket> quiet = connectFrom(address(3));
        QTRY_COMPARE(door->handshakeCount(), size_t{1});
        std::vector<std::unique_ptr<QTcpSocket>> flood;
        for (qsizetype i = 0; i < 2 * FrontDoor::kMaxStrangers; ++i) {
            flood.push_back(connectFrom(address(2)));
        }
        QTRY_COMPARE(countConnected(flood), FrontDoor::kMaxStrangers - 1);
        QCOMPARE(door->handshakeCount(), static_cast<size_t>(FrontDoor::kMaxStrangers));
        QCOMPARE(quiet->state(), QAbstractSocket::ConnectedState);
    }

    void strangersHaveFewProcesses()
    {
        door->open();
        std::vector<std::unique_ptr<QTcpSocket>> talking;
        for (qsizetype i = 0; i < FrontDoor::kMaxReceived + 10; ++i) {
            talking.push_back(connectFrom(address(2)));
            talking.back()->write("R");
        }
        QTRY_COMPARE(reception->receivedCount, FrontDoor::kMaxReceived + 10);
        QTRY_COMPARE(countConnected(talking), FrontDoor::kMaxReceived);
        Viewer own(door->port(), passwords.add().password);
        QTRY_VERIFY(own.isIn());
        QCOMPARE(countConnected(talking), FrontDoor::kMaxReceived);
    }

    void ownConnectionsAreNotEvicted()
    {
        door->open();
        const std::unique_ptr<QTcpSocket> own = connectFrom(address(1));
        QTRY_COMPARE(door->handshakeCount(), size_t{1});
        std::vector<std::unique_ptr<QTcpSocket>> flood;
        for (qsizetype i = 0; i < FrontDoor::kMaxStrangers + 10; ++i) {
            flood.push_back(connectFrom(address(2)));
        }
        QTRY_COMPARE(countConnected(flood), FrontDoor::kMaxStrangers);
        QCOMPARE(own->state(), QAbstractSocket::ConnectedState);
        QCOMPARE(door->handshakeCount(), static_cast<size_t>(FrontDoor::kMaxStrangers + 1));
    }

    void ownConnectionsAreLimited()
    {
        door->open();
        std::vector<std::unique_ptr<QTcpSocket>> own;
        for (qsizetype i = 0; i < FrontDoor::kMaxOwn + 5; ++i) {
            own.push_back(connectFrom(address(1)));
        }
        QTRY_COMPARE(countConnected(own), FrontDoor::kMaxOwn);
        QTRY_COMPARE(door->handshakeCount(), static_cast<size_t>(FrontDoor::kMaxOwn));
    }

    // Wrong passwords of others, from the same address, lock the user out of nothing.
    void ownViewerIsNeverLockedOut()
    {
        door->open();
        const QByteArray password = passwords.add().password;
        localHost = TcpPeer::OtherHost; // as through a gateway
        for (int i = 0; i <= AttemptLimiter::kFreeAttempts; ++i) {
            Viewer guessing(door->port(), "nonsense");
            QTRY_VERIFY(guessing.isRefused());
        }
        Viewer locked(door->port(), password);
        QTRY_VERIFY(locked.received.contains("Too many wrong passwords"));
        localHost = TcpPeer::Ours;
        Viewer own(door->port(), password);
        QTRY_VERIFY(own.isIn());
    }

    void otherUsersAreClosedAtOnce()
    {
        door->open();
        localHost = TcpPeer::OtherUser;
        Viewer viewer(door->port(), passwords.add().password);
        QTRY_COMPARE(log->lines.size(), 1);
        QTRY_VERIFY(viewer.isRefused());
        QVERIFY(viewer.received.isEmpty()); // not even the greeting
        QCOMPARE(door->handshakeCount(), size_t{0});
        QCOMPARE(log->lines.first(),
                 u"Info: Refused a client from 127.0.0.1: It belongs to another user of this host"_s);
    }

    void otherUsersComeInIfAllowed()
    {
        DoorRules chosen = rules();
        chosen.allowLocalUsers = true;
        makeDoor(chosen);
        door->open();
        localHost = TcpPeer::OtherUser;
        Viewer viewer(door->port(), passwords.add().password);
        QTRY_VERIFY(viewer.isIn());
        for (int i = 0; i <= AttemptLimiter::kFreeAttempts; ++i) {
            Viewer guessing(door->port(), "nonsense");
            QTRY_VERIFY(guessing.isRefused());
        }
        Viewer locked(door->port(), passwords.add().password); // they count as strangers
        QTRY_VERIFY(locked.received.contains("Too many wrong passwords"));
    }

    // The rules' own function asks the kernel.
    void ownProcessIsRecognised()
    {
        DoorRules chosen;
        chosen.limits = {20s, 1ms};
        makeDoor(chosen);
        door->open();
        Viewer viewer(door->port(), passwords.add().password);
        QTRY_VERIFY(viewer.isIn());
    }

    void processOfAnotherUserIsRecognised()
    {
        if (!canPlayStranger()) {
            QSKIP("only root can play another user");
        }
        makeDoor(DoorRules());
        door->open();
        const quint16 port = door->port();
        const Stranger stranger([port] {
            const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in peer = {};
            peer.sin_family = AF_INET;
            peer.sin_port = htons(port);
            peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            ::connect(socket, reinterpret_cast<const sockaddr *>(&peer), sizeof peer);
        });
        QVERIFY(stranger.hasActed());
        QTRY_COMPARE(log->lines.size(), 1);
        QCOMPARE(log->lines.first(),
                 u"Info: Refused a client from 127.0.0.1: It belongs to another user of this host"_s);
        QCOMPARE(door->handshakeCount(), size_t{0});
    }

    void plainIsForLoopbackAlone_data()
    {
        QTest::addColumn<bool>("isAllowed");
        QTest::newRow("default") << false;
        QTest::newRow("opened for the network") << true;
    }

    void plainIsForLoopbackAlone()
    {
        QFETCH(bool, isAllowed);
        QHostAddress outer;
        const QList<QHostAddress> all = QNetworkInterface::allAddresses();
        for (const QHostAddress &each : all) {
            if (!each.isLoopback() && each.protocol() == QAbstractSocket::IPv4Protocol) {
                outer = each;
            }
        }
        if (outer.isNull()) {
            QSKIP("this machine has no address but loopback");
        }
        DoorRules chosen = rules();
        chosen.allowPlainFromNetwork = isAllowed;
        makeDoor(chosen);
        door->open();
        Viewer viewer(door->port(), passwords.add().password, outer, outer);
        if (isAllowed) {
            QTRY_VERIFY(viewer.isIn());
        } else {
            QTRY_VERIFY(viewer.received.contains("\"zarvoctl connect\""));
            QVERIFY(viewer.received.contains("X509Vnc"));
            QCOMPARE(door->clientCount(), size_t{0});
            QCOMPARE(passwords.all().size(), 1);
        }
    }

    void localHandshakesAreLimited()
    {
        QString error;
        QVERIFY(door->listenLocally(localPath(), &error));
        std::vector<std::unique_ptr<QLocalSocket>> viewers;
        const auto connected = [&viewers] {
            return std::count_if(viewers.begin(), viewers.end(), [](const std::unique_ptr<QLocalSocket> &viewer) {
                return viewer->state() == QLocalSocket::ConnectedState;
            });
        };
        for (qsizetype i = 0; i < FrontDoor::kMaxOwn + 5; ++i) {
            viewers.push_back(std::make_unique<QLocalSocket>());
            viewers.back()->connectToServer(localPath());
            QCoreApplication::processEvents();
        }
        QTRY_COMPARE(connected(), FrontDoor::kMaxOwn);
        QCOMPARE(door->handshakeCount(), static_cast<size_t>(FrontDoor::kMaxOwn));
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

    void refusalsDoNotFillTheLog()
    {
        door->open();
        QElapsedTimer elapsed;
        elapsed.start();
        for (int i = 0; i < 50; ++i) {
            QTcpSocket client;
            client.connectToHost(QHostAddress::LocalHost, door->port());
            QTRY_COMPARE(client.bytesAvailable(), 12);
            client.write("GET / HTTP/1.1\r\n\r\n");
            QTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
            QTRY_COMPARE(door->handshakeCount(), size_t{0});
        }
        QVERIFY(!log->lines.isEmpty());
        QVERIFY(log->lines.size() <= 1 + elapsed.elapsed() / 9000); // one more for each pause that has ended
        QVERIFY(log->lines.first().startsWith(u"Info: Refused a client from 127.0.0.1: "_s));
    }
};

ZARVO_TEST(DoorRulesTest)
#include "tst_doorrules.moc"
