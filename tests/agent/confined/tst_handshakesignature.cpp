// SPDX-License-Identifier: MIT
#include "agent/confined/doorpackets.h"
#include "agent/confined/handshakesignature.h"
#include "tests/helpers/tlspair.h"
#include "tests/testmain.h"

#include <QTest>

#include <string>

namespace {

std::string tls13(const std::string &side, std::size_t hashBytes)
{
    return std::string(64, ' ') + "TLS 1.3, " + side + " CertificateVerify" + std::string(1, '\0') +
           std::string(hashBytes, 'h');
}

std::string tls12(const std::string &head, std::size_t shareBytes)
{
    return std::string(64, 'r') + head + std::string(shareBytes, 's');
}

const std::string kX25519("\x03\x00\x1d\x20", 4);
const std::string kP256("\x03\x00\x17\x41", 4);

} // namespace

class HandshakeSignatureTest final : public QObject
{
    Q_OBJECT

private slots:
    void serversContentIsKnown_data()
    {
        QTest::addColumn<std::string>("content");
        QTest::addColumn<bool>("isServers");
        QTest::newRow("1.3, SHA-256") << tls13("server", 32) << true;
        QTest::newRow("1.3, SHA-384") << tls13("server", 48) << true;
        QTest::newRow("1.3, a client's") << tls13("client", 32) << false;
        QTest::newRow("1.3, a client's with SHA-384") << tls13("client", 48) << false;
        QTest::newRow("1.3, no hash") << tls13("server", 0) << false;
        QTest::newRow("1.3, other length") << tls13("server", 33) << false;
        QTest::newRow("1.2, X25519") << tls12(kX25519, 32) << true;
        QTest::newRow("1.2, P-256") << tls12(kP256, 65) << true;
        QTest::newRow("1.2, share too short") << tls12(kX25519, 31) << false;
        QTest::newRow("1.2, share too long") << tls12(kX25519, 33) << false;
        QTest::newRow("1.2, other curve") << tls12(std::string("\x03\x00\x18\x61", 4), 0x61) << false;
        QTest::newRow("1.2, a client's: the messages so far") << "\x01" + std::string(600, 'm') << false;
        QTest::newRow("nothing") << std::string() << false;
    }

    void serversContentIsKnown()
    {
        QFETCH(std::string, content);
        QFETCH(bool, isServers);
        static const TlsPair pair = TlsPair::make();
        const HandshakeSignature request{false, 256, content};
        QCOMPARE(request.isServers(), isServers);
        QCOMPARE(request.sign(pair.key.get()).empty(), !isServers);
    }

    void packetKeepsAll()
    {
        for (const bool isPss : {false, true}) {
            for (const int bits : {256, 384, 512}) {
                const HandshakeSignature request{isPss, bits, tls13("server", 32)};
                const std::optional<HandshakeSignature> read = HandshakeSignature::fromPacket(request.toPacket());
                QVERIFY(read && read->isPss == isPss && read->hashBits == bits && read->content == request.content);
            }
        }
    }

    void otherPacketsAreRefused()
    {
        for (const std::string &packet : {std::string(), std::string("S"), std::string("SP"), std::string("SPx"),
                                          std::string("SX2"), std::string("RP2text")}) {
            QVERIFY(!HandshakeSignature::fromPacket(packet));
        }
    }
};

ZARVO_TEST(HandshakeSignatureTest)
#include "tst_handshakesignature.moc"
