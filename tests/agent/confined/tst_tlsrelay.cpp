// SPDX-License-Identifier: MIT
#include "agent/confined/tlsidentity.h"
#include "agent/confined/tlsrelay.h"
#include "tests/agent/confined/fakeagent.h"
#include "tests/agent/confined/visitorends.h"
#include "tests/testmain.h"

#include <QTest>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>

/** A relay that runs in a thread, between a client with TLS and a socket in place of the X server's. */
class RunningRelay final
{
public:
    RunningRelay(const TlsIdentity &identity, EVP_PKEY *key, int protocol)
        : client(makePair())
        , backend(makePair())
        , control(makeControlPair())
        , agent(control[0], key)
        , peer(client[0], protocol)
        , ended(std::async(std::launch::async, [this, &identity] { serve(identity); }))
        , isConnected(peer.connect())
    {
    }
    ~RunningRelay()
    {
        ::shutdown(client[0], SHUT_RDWR);
        ended.wait();
        for (const int descriptor : {client[0], client[1], backend[0], backend[1], control[1]}) {
            ::close(descriptor);
        }
    }
    Q_DISABLE_COPY_MOVE(RunningRelay)

    [[nodiscard]] bool hasEnded() { return ended.wait_for(std::chrono::seconds(30)) == std::future_status::ready; }

    const std::array<int, 2> client;  ///< the viewer's, the process's
    const std::array<int, 2> backend; ///< the X server's, the process's
    const std::array<int, 2> control; ///< the agent's, the process's
    FakeAgent agent;
    TlsPeer peer;

private:
    void serve(const TlsIdentity &identity) const
    {
        const SslPtr ssl = identity.newConnection(client[1], &control[1]);
        ::fcntl(client[1], F_SETFL, 0);
        if (SSL_accept(ssl.get()) != 1) {
            return;
        }
        ::fcntl(client[1], F_SETFL, O_NONBLOCK);
        relayTls(ssl.get(), client[1], backend[1], control[1]);
        ::shutdown(backend[1], SHUT_RDWR); // the end of the process closes it
        ::shutdown(client[1], SHUT_WR);
    }

    std::future<void> ended;

public:
    const bool isConnected;
};

class TlsRelayTest final : public QObject
{
    Q_OBJECT

private:
    const TlsPair pair = TlsPair::make();
    const std::unique_ptr<TlsIdentity> identity =
        TlsIdentity::fromPem({pair.certificatePem.constData(), static_cast<size_t>(pair.certificatePem.size())});
    std::unique_ptr<RunningRelay> relay;

    static QByteArray pattern(qsizetype size)
    {
        QByteArray bytes(size, Qt::Uninitialized);
        for (qsizetype i = 0; i < size; ++i) {
            bytes[i] = static_cast<char>(i * 7 + i / 251);
        }
        return bytes;
    }

    void begin(int protocol = TLS1_3_VERSION)
    {
        relay.reset();
        relay = std::make_unique<RunningRelay>(*identity, pair.key.get(), protocol);
        QVERIFY(relay->isConnected);
    }

private slots:
    void initTestCase() { ::signal(SIGPIPE, SIG_IGN); } // as in the process
    void cleanup() { relay.reset(); }

    void bytesAreCopiedBothWays_data()
    {
        QTest::addColumn<int>("protocol");
        QTest::newRow("1.2") << TLS1_2_VERSION;
        QTest::newRow("1.3") << TLS1_3_VERSION;
    }

    void bytesAreCopiedBothWays()
    {
        QFETCH(int, protocol);
        begin(protocol);
        relay->peer.write("up");
        QCOMPARE(readBytes(relay->backend[0], 2), QByteArray("up"));
        writeBytes(relay->backend[0], "down");
        QCOMPARE(relay->peer.read(4), QByteArray("down"));
    }

    // Both directions at once, and more than all buffers on the way take.
    void largeDataComesThroughWhole()
    {
        begin();
        const QByteArray large = pattern(16 * 1024 * 1024);
        std::thread echo([this, &large] {
            qsizetype left = large.size();
            while (left > 0) {
                const QByteArray piece = readBytes(relay->backend[0], std::min<qsizetype>(left, 4096));
                writeBytes(relay->backend[0], piece);
                left = piece.isEmpty() ? 0 : left - piece.size();
            }
        });
        // A client that writes all before it reads would wait for itself, so it goes on in steps.
        QByteArray received;
        for (qsizetype at = 0; at < large.size(); at += 65536) {
            relay->peer.write(large.mid(at, 65536));
            received += relay->peer.read(65536);
        }
        echo.join();
        QVERIFY(received == large);
    }

    // The X server sends much while the client reads nothing: it is held back, and nothing is lost.
    void slowClientHoldsTheBackendBack()
    {
        begin();
        const QByteArray large = pattern(32 * 1024 * 1024);
        ::fcntl(relay->backend[0], F_SETFL, O_NONBLOCK);
        qsizetype sent = 0;
        const auto sendMore = [this, &large, &sent] {
            const ssize_t length = ::send(relay->backend[0], large.constData() + sent,
                                          static_cast<size_t>(large.size() - sent), MSG_NOSIGNAL);
            sent += std::max<ssize_t>(length, 0);
            return length > 0;
        };
        // Until no byte has moved for half a second.
        while (QTest::qWaitFor(sendMore, 500)) {
        }
        QVERIFY(sent < 8 * 1024 * 1024);
        QByteArray received;
        while (received.size() < large.size()) {
            const QByteArray piece = relay->peer.read(std::min<qsizetype>(16384, sent - received.size()));
            QVERIFY(!piece.isEmpty());
            received += piece;
            sendMore();
        }
        QVERIFY(received == large);
    }

    // The X server reads nothing: the client is held back, and nothing is lost.
    void slowBackendHoldsTheClientBack()
    {
        begin();
        const QByteArray large = pattern(32 * 1024 * 1024);
        std::atomic<qsizetype> sent = 0;
        std::thread client([this, &large, &sent] {
            for (qsizetype at = 0; at < large.size() && relay->peer.write(large.mid(at, 16384)); at += 16384) {
                sent += 16384;
            }
        });
        qsizetype before = 0;
        while (QTest::qWaitFor([&] { return sent > before; }, 500)) {
            before = sent;
        }
        const qsizetype heldAt = before;
        const QByteArray received = readBytes(relay->backend[0], large.size());
        client.join();
        QVERIFY(heldAt < 8 * 1024 * 1024);
        QVERIFY(received == large);
    }

    // The client's last bytes arrive although it has closed.
    void clientThatClosesEndsIt()
    {
        begin();
        const QByteArray last = pattern(100000);
        relay->peer.write(last);
        SSL_shutdown(relay->peer.get());
        QVERIFY(readToTheEnd(relay->backend[0]) == last);
        QVERIFY(relay->hasEnded());
    }

    void clientThatVanishesEndsIt()
    {
        begin();
        ::shutdown(relay->client[0], SHUT_RDWR); // without the end of TLS
        QVERIFY(relay->hasEnded());
    }

    void backendThatClosesEndsIt()
    {
        begin();
        const QByteArray last = pattern(100000);
        writeBytes(relay->backend[0], last);
        ::shutdown(relay->backend[0], SHUT_RDWR);
        QVERIFY(relay->peer.read(last.size()) == last);
        char byte = 0;
        QCOMPARE(SSL_get_error(relay->peer.get(), SSL_read(relay->peer.get(), &byte, 1)), SSL_ERROR_ZERO_RETURN);
        QVERIFY(relay->hasEnded());
    }

    // The agent disconnects its clients, or has died.
    void agentThatLeavesEndsIt()
    {
        begin();
        relay->peer.write("x");
        QCOMPARE(readBytes(relay->backend[0], 1), QByteArray("x"));
        relay->agent.finish();
        QVERIFY(relay->hasEnded());
    }

    void agentThatLeavesEndsAStuckRelay()
    {
        begin();
        ::fcntl(relay->backend[0], F_SETFL, O_NONBLOCK);
        while (
            QTest::qWaitFor([this] { return ::send(relay->backend[0], "0123456789", 10, MSG_NOSIGNAL) == 10; }, 100)) {
        }
        relay->agent.finish();
        QVERIFY(relay->hasEnded());
    }

    void brokenRecordEndsIt()
    {
        begin();
        writeBytes(relay->client[0], "these bytes are no record of TLS");
        QVERIFY(relay->hasEnded());
        QCOMPARE(readToTheEnd(relay->backend[0]), QByteArray(""));
    }

    // Each one would cost the work of a handshake.
    void renegotiationIsRefused()
    {
        begin(TLS1_2_VERSION);
        QCOMPARE(SSL_renegotiate(relay->peer.get()), 1);
        QVERIFY(SSL_do_handshake(relay->peer.get()) != 1);
        QCOMPARE(relay->agent.count(DoorPacket::kSign), 1);
    }
};

ZARVO_TEST(TlsRelayTest)
#include "tst_tlsrelay.moc"
