// SPDX-License-Identifier: MIT
#include "agent/confined/tlsidentity.h"
#include "agent/confined/visitor.h"
#include "tests/agent/confined/fakeagent.h"
#include "tests/agent/confined/visitorends.h"
#include "tests/testmain.h"

#include <QTest>

#include <csignal>

/** A visitor that is served by a thread, and its agent. */
class Visited final
{
public:
    Visited(const VisitorOrder &order, const TlsIdentity *identity, EVP_PKEY *key,
            const std::string &verdict = {DoorPacket::kAccept}, int backend = -1)
        : ends(makePair())
        , controls(makeControlPair())
        , agent(controls[0], key, verdict, backend)
        , thread([this, order, identity] {
            serveVisitor(ends[1], controls[1], order, identity);
            ::close(ends[1]);
            ::close(controls[1]);
        })
    {
    }
    ~Visited()
    {
        leave();
        if (thread.joinable()) {
            finish();
        }
    }
    Q_DISABLE_COPY_MOVE(Visited)

    [[nodiscard]] int socket() const { return ends[0]; }
    [[nodiscard]] QByteArray read(qsizetype count) const { return readBytes(ends[0], count); }
    void write(const QByteArray &bytes) const { writeBytes(ends[0], bytes); }

    /** The visitor closes its connection. */
    void leave()
    {
        if (ends[0] != -1) {
            ::close(std::exchange(ends[0], -1));
        }
    }

    /** Waits until the visitor is served. Blocks until the visitor or the agent has left. */
    void finish()
    {
        thread.join();
        agent.finish();
    }

private:
    std::array<int, 2> ends;     ///< the visitor's, the process's
    std::array<int, 2> controls; ///< the agent's, the process's

public:
    FakeAgent agent;

private:
    std::thread thread;
};

class VisitorTest final : public QObject
{
    Q_OBJECT

private:
    const TlsPair pair = TlsPair::make();
    const std::unique_ptr<TlsIdentity> identity =
        TlsIdentity::fromPem({pair.certificatePem.constData(), static_cast<size_t>(pair.certificatePem.size())});
    const QByteArray challenge = QByteArray("0123456789abcdef");
    const QByteArray response = QByteArray("fedcba9876543210");
    const QByteArray version = QByteArray("RFB 003.008\n");
    const QByteArray veNCrypt = QByteArray::fromHex("13000200000105"); ///< all that leads to TLS, after the version

    static QByteArray hex(const char *digits) { return QByteArray::fromHex(digits); }

    VisitorOrder order(bool tls, bool plain) const
    {
        VisitorOrder made;
        made.offersTls = tls;
        made.offersPlain = plain;
        made.challenge = challenge.toStdString();
        return made;
    }

    static std::string refused(RefusalCause cause) { return {DoorPacket::kRefused, static_cast<char>(cause)}; }

    std::string responsePacket() const { return DoorPacket::kResponse + response.toStdString(); }

    static void addProtocols()
    {
        QTest::addColumn<int>("protocol");
        QTest::newRow("1.2") << TLS1_2_VERSION;
        QTest::newRow("1.3") << TLS1_3_VERSION;
    }

    /** Leads a visitor to the beginning of TLS. */
    bool reachTls(Visited *visited) const
    {
        visited->write(version + veNCrypt);
        return visited->read(2 + 2 + 6 + 1) == hex("01130002000100000105") + hex("01");
    }

private slots:
    void initTestCase()
    {
        ::signal(SIGPIPE, SIG_IGN); // as in the process
        QVERIFY(identity);
    }

    void visitorWithoutTlsIsLetIn()
    {
        Visited visited(order(false, true), nullptr, nullptr);
        visited.write(version);
        QCOMPARE(visited.read(2), hex("0102"));
        visited.write(hex("02"));
        QCOMPARE(visited.read(16), challenge);
        visited.write(response + "more");
        QCOMPARE(visited.read(4), hex("00000000"));
        visited.finish(); // without the visitor's end: the agent goes on with it
        QVERIFY(visited.agent.packets() ==
                (std::vector<std::string>{responsePacket(), {DoorPacket::kInside, DoorPacket::kOverTcp}}));
    }

    // What follows the handshake belongs to the agent's own reading.
    void noByteTooMuchIsRead()
    {
        const std::array<int, 2> ends = makePair();
        const std::array<int, 2> controls = makeControlPair();
        FakeAgent agent(controls[0], nullptr);
        writeBytes(ends[0], version + hex("02") + response + "more");
        serveVisitor(ends[1], controls[1], order(false, true), nullptr);
        char buffer[16] = {};
        QCOMPARE(::read(ends[1], buffer, sizeof buffer), ssize_t{4});
        QCOMPARE(QByteArray(buffer, 4), QByteArray("more"));
        for (const int descriptor : {ends[0], ends[1], controls[1]}) {
            ::close(descriptor);
        }
    }

    void visitorOverTlsIsLetIn_data() { addProtocols(); }

    void visitorOverTlsIsLetIn()
    {
        QFETCH(int, protocol);
        const std::array<int, 2> backend = makePair();
        Visited visited(order(true, false), identity.get(), pair.key.get(), {DoorPacket::kAccept}, backend[1]);
        QVERIFY(reachTls(&visited));
        TlsPeer peer(visited.socket(), protocol);
        QVERIFY(peer.connect());
        QCOMPARE(SSL_version(peer.get()), protocol);
        QCOMPARE(peer.read(16), challenge);
        peer.write(response);
        QCOMPARE(peer.read(4), hex("00000000"));
        peer.write("to the X server");
        QCOMPARE(readBytes(backend[0], 15), QByteArray("to the X server"));
        writeBytes(backend[0], "to the viewer");
        QCOMPARE(peer.read(13), QByteArray("to the viewer"));
        visited.leave();
        visited.finish();
        QCOMPARE(visited.agent.count(DoorPacket::kSign), 1);
        QCOMPARE(visited.agent.packets().size(), size_t{3});
        QVERIFY(visited.agent.packets()[1] == responsePacket());
        QVERIFY(visited.agent.hasReceived({DoorPacket::kInside, DoorPacket::kOverTls}));
        ::close(backend[0]);
        ::close(backend[1]);
    }

    void bytesMayComeOneByOne_data() { addProtocols(); }

    // Each byte of the client, also of its TLS records, comes alone.
    void bytesMayComeOneByOne()
    {
        QFETCH(int, protocol);
        Visited visited(order(true, false), identity.get(), pair.key.get());
        for (const char byte : version + veNCrypt) {
            visited.write(QByteArray(1, byte));
        }
        QCOMPARE(visited.read(11).size(), 11);
        const std::array<int, 2> slow = makePair();
        ::fcntl(slow[1], F_SETFL, 0);
        std::thread slowDown([&slow, socket = visited.socket()] {
            char byte = 0;
            while (::read(slow[1], &byte, 1) == 1) {
                writeBytes(socket, QByteArray(1, byte));
            }
        });
        std::thread back([&slow, socket = visited.socket()] {
            std::array<char, 4096> buffer = {};
            for (ssize_t length = 0; (length = ::read(socket, buffer.data(), buffer.size())) > 0;) {
                writeBytes(slow[1], QByteArray(buffer.data(), length));
            }
        });
        {
            TlsPeer peer(slow[0], protocol);
            QVERIFY(peer.connect());
            QCOMPARE(peer.read(16), challenge);
            peer.write(response);
            QCOMPARE(peer.read(4), hex("00000000"));
        }
        ::shutdown(slow[0], SHUT_RDWR);
        slowDown.join();
        ::shutdown(visited.socket(), SHUT_RDWR);
        back.join();
        visited.agent.finish();
        ::close(slow[0]);
        ::close(slow[1]);
    }

    void weakTlsIsRefused_data()
    {
        QTest::addColumn<int>("protocol");
        QTest::addColumn<QByteArray>("suites");
        QTest::newRow("TLS 1.0") << TLS1_VERSION << QByteArray("ALL");
        QTest::newRow("TLS 1.1") << TLS1_1_VERSION << QByteArray("ALL");
        QTest::newRow("static RSA") << TLS1_2_VERSION << QByteArray("AES256-GCM-SHA384:AES128-GCM-SHA256");
        QTest::newRow("static RSA and CBC") << TLS1_2_VERSION << QByteArray("AES256-SHA256:AES128-SHA");
        QTest::newRow("ECDHE and CBC") << TLS1_2_VERSION << QByteArray("ECDHE-RSA-AES256-SHA384:ECDHE-RSA-AES128-SHA");
        QTest::newRow("DHE") << TLS1_2_VERSION << QByteArray("DHE-RSA-AES256-GCM-SHA384");
        QTest::newRow("anonymous") << TLS1_2_VERSION << QByteArray("ADH-AES256-GCM-SHA384:AECDH-AES256-SHA");
        QTest::newRow("none") << TLS1_2_VERSION << QByteArray("eNULL");
    }

    void weakTlsIsRefused()
    {
        QFETCH(int, protocol);
        QFETCH(QByteArray, suites);
        Visited visited(order(true, true), identity.get(), pair.key.get());
        visited.write(version + veNCrypt);
        QCOMPARE(visited.read(12).size(), 12);
        TlsPeer peer(visited.socket(), protocol);
        QCOMPARE(SSL_set_cipher_list(peer.get(), suites.constData()), 1);
        QVERIFY(!peer.connect());
        visited.leave();
        visited.finish();
        QVERIFY(visited.agent.packets() == std::vector<std::string>{refused(RefusalCause::TlsFailed)});
    }

    void strongSuitesAreTaken_data()
    {
        QTest::addColumn<QByteArray>("suite");
        QTest::newRow("AES 128") << QByteArray("ECDHE-RSA-AES128-GCM-SHA256");
        QTest::newRow("AES 256") << QByteArray("ECDHE-RSA-AES256-GCM-SHA384");
        QTest::newRow("ChaCha20") << QByteArray("ECDHE-RSA-CHACHA20-POLY1305");
    }

    void strongSuitesAreTaken()
    {
        QFETCH(QByteArray, suite);
        Visited visited(order(true, false), identity.get(), pair.key.get());
        QVERIFY(reachTls(&visited));
        TlsPeer peer(visited.socket(), TLS1_2_VERSION);
        QCOMPARE(SSL_set_cipher_list(peer.get(), suite.constData()), 1);
        QVERIFY(peer.connect());
        QCOMPARE(QByteArray(SSL_get_cipher_name(peer.get())), suite);
    }

    // No connection is resumed, so each one needs the password and a signature.
    void sessionIsNotResumed_data() { addProtocols(); }

    void sessionIsNotResumed()
    {
        QFETCH(int, protocol);
        std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)> session(nullptr, &SSL_SESSION_free);
        for (int i = 0; i < 2; ++i) {
            Visited visited(order(true, false), identity.get(), pair.key.get());
            QVERIFY(reachTls(&visited));
            TlsPeer peer(visited.socket(), protocol);
            if (session) {
                SSL_set_session(peer.get(), session.get());
            }
            QVERIFY(peer.connect());
            QCOMPARE(peer.read(16), challenge);
            QCOMPARE(SSL_session_reused(peer.get()), 0);
            session.reset(SSL_get1_session(peer.get()));
            visited.leave();
            visited.finish();
            QCOMPARE(visited.agent.count(DoorPacket::kSign), 1);
        }
    }

    void missingSignatureEndsTls_data() { addProtocols(); }

    void missingSignatureEndsTls()
    {
        QFETCH(int, protocol);
        Visited visited(order(true, false), identity.get(), nullptr);
        QVERIFY(reachTls(&visited));
        TlsPeer peer(visited.socket(), protocol);
        QVERIFY(!peer.connect());
        visited.leave();
        visited.finish();
        QCOMPARE(visited.agent.count(DoorPacket::kSign), 1);
        QVERIFY(visited.agent.hasReceived(refused(RefusalCause::TlsFailed)));
    }

    void textInsteadOfTlsIsRefused()
    {
        Visited visited(order(true, false), identity.get(), pair.key.get());
        QVERIFY(reachTls(&visited));
        visited.write("no TLS at all, but many bytes");
        visited.finish();
        QVERIFY(visited.agent.packets() == std::vector<std::string>{refused(RefusalCause::TlsFailed)});
    }

    void wrongResponseIsRefused_data()
    {
        QTest::addColumn<bool>("isTls");
        QTest::newRow("plain") << false;
        QTest::newRow("over TLS") << true;
    }

    void wrongResponseIsRefused()
    {
        QFETCH(bool, isTls);
        Visited visited(order(true, true), identity.get(), pair.key.get(), DoorPacket::kRefuse + std::string("no"));
        const QByteArray answer = hex("00000001") + hex("00000002") + "no";
        if (isTls) {
            visited.write(version + veNCrypt);
            QCOMPARE(visited.read(12).size(), 12);
            TlsPeer peer(visited.socket(), TLS1_2_VERSION);
            QVERIFY(peer.connect());
            QCOMPARE(peer.read(16), challenge);
            peer.write(response);
            QCOMPARE(peer.read(answer.size() + 1), answer); // and the end of TLS
        } else {
            visited.write(version + hex("02") + response);
            QCOMPARE(readToTheEnd(visited.socket()), hex("021302") + challenge + answer);
        }
        visited.leave();
        visited.finish();
        QVERIFY(visited.agent.packets().back() == refused(RefusalCause::WrongPassword));
        QCOMPARE(visited.agent.count(DoorPacket::kResponse), 1);
        QCOMPARE(visited.agent.count(DoorPacket::kInside), 0);
    }

    void refusedVisitorsHaveACause_data()
    {
        QTest::addColumn<bool>("isTurnedAway");
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<int>("cause");
        QTest::newRow("turned away") << true << version << int(RefusalCause::TurnedAway);
        QTest::newRow("another protocol") << false << QByteArray("GET / ") << int(RefusalCause::NotOurProtocol);
        QTest::newRow("another version") << false << QByteArray("RFB 004.000\n") << int(RefusalCause::NotOurProtocol);
        QTest::newRow("another type") << false << version + hex("05") << int(RefusalCause::NothingFits);
        QTest::newRow("another VeNCrypt") << false << version + hex("130001") << int(RefusalCause::NotOurProtocol);
        QTest::newRow("another type inside")
            << false << version + hex("13000200000100") << int(RefusalCause::NothingFits);
    }

    void refusedVisitorsHaveACause()
    {
        QFETCH(bool, isTurnedAway);
        QFETCH(QByteArray, sent);
        QFETCH(int, cause);
        VisitorOrder made = order(true, true);
        made.turnsAway = isTurnedAway;
        Visited visited(made, identity.get(), pair.key.get());
        visited.write(sent + "more, which is not read");
        QVERIFY(!readToTheEnd(visited.socket()).isNull()); // it is closed on that side only, so the answer arrives
        visited.write("still open");
        visited.leave();
        visited.finish();
        QVERIFY(visited.agent.packets() == std::vector<std::string>{refused(RefusalCause(cause))});
    }

    // Without a certificate nobody may be led into TLS, even if the agent should say so.
    void tlsWithoutACertificateIsRefused()
    {
        Visited visited(order(true, false), nullptr, pair.key.get());
        visited.write(version + veNCrypt);
        visited.finish();
        QVERIFY(visited.agent.packets() == std::vector<std::string>{refused(RefusalCause::TlsFailed)});
    }

    void visitorMayLeaveAtEachStep_data()
    {
        QTest::addColumn<QByteArray>("sent");
        const QByteArray toTls = version + veNCrypt;
        for (qsizetype length = 0; length <= toTls.size(); ++length) {
            QTest::addRow("to TLS, %d", int(length)) << toTls.first(length);
        }
        const QByteArray toResponse = version + hex("02") + response;
        for (qsizetype length = version.size() + 1; length < toResponse.size(); ++length) {
            QTest::addRow("plain, %d", int(length)) << toResponse.first(length);
        }
        QTest::newRow("head of a TLS record") << toTls + hex("1603010100");
        QTest::newRow("part of a TLS record") << toTls + hex("1603010100010000fc0303");
    }

    void visitorMayLeaveAtEachStep()
    {
        QFETCH(QByteArray, sent);
        Visited visited(order(true, true), identity.get(), pair.key.get());
        visited.write(sent);
        visited.leave();
        visited.finish(); // it ends by itself
        QCOMPARE(visited.agent.count(DoorPacket::kInside), 0);
        QCOMPARE(visited.agent.count(DoorPacket::kResponse), 0);
        QCOMPARE(visited.agent.count(DoorPacket::kSign), 0);
    }

    void visitorMayLeaveInsideOfTls_data() { addProtocols(); }

    void visitorMayLeaveInsideOfTls()
    {
        QFETCH(int, protocol);
        for (const qsizetype length : {0, 1, 15, 16}) {
            Visited visited(order(true, false), identity.get(), pair.key.get());
            QVERIFY(reachTls(&visited));
            TlsPeer peer(visited.socket(), protocol);
            QVERIFY(peer.connect());
            QCOMPARE(peer.read(16), challenge);
            if (length > 0) {
                peer.write(response.first(length));
            }
            visited.leave();
            visited.finish();
            QCOMPARE(visited.agent.count(DoorPacket::kResponse), length == 16 ? 1 : 0);
        }
    }

    // The agent closes the control socket when the visitor takes too long.
    void agentMayLeave()
    {
        const std::array<int, 2> ends = makePair();
        const std::array<int, 2> controls = makeControlPair();
        ::close(controls[0]);
        writeBytes(ends[0], version + hex("02") + response);
        serveVisitor(ends[1], controls[1], order(false, true), nullptr);
        for (const int descriptor : {ends[0], ends[1], controls[1]}) {
            ::close(descriptor);
        }
    }

    void otherTextIsNoIdentity_data()
    {
        QTest::addColumn<QByteArray>("pem");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("text") << QByteArray("no certificate");
        QTest::newRow("key") << pair.keyPem;
        QTest::newRow("half") << pair.certificatePem.first(pair.certificatePem.size() / 2);
    }

    void otherTextIsNoIdentity()
    {
        QFETCH(QByteArray, pem);
        QVERIFY(!TlsIdentity::fromPem({pem.constData(), static_cast<size_t>(pem.size())}));
    }
};

ZARVO_TEST(VisitorTest)
#include "tst_visitor.moc"
