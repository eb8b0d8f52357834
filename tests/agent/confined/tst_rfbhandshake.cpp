// SPDX-License-Identifier: MIT
#include "agent/confined/rfbhandshake.h"
#include "tests/testmain.h"

#include <QTest>

#include <string>

using namespace std::string_literals;
using State = RfbHandshake::State;

class RfbHandshakeTest final : public QObject
{
    Q_OBJECT

private:
    const std::string challenge = "0123456789abcdef";
    const std::string response = "fedcba9876543210";

    static std::string hex(const char *digits) { return QByteArray::fromHex(digits).toStdString(); }

    RfbOffer offer(bool tls, bool plain, bool none = false) const
    {
        return {.tls = tls, .plain = plain, .none = none, .challenge = challenge};
    }
    RfbOffer plain() const { return offer(false, true); }

    /** The bytes that a client sends, up to and including its response. */
    std::string clientBytes(const std::string &version) const
    {
        const bool choosesType = version != "RFB 003.003\n";
        return version + (choosesType ? hex("02") : std::string()) + response;
    }

    static std::string reason(const std::string &text)
    {
        return std::string(3, '\0') + static_cast<char>(text.size()) + text;
    }

    /** Passes @p bytes to the handshake. @return its answer; "unread" if it has left bytes */
    static std::string answerTo(RfbHandshake *handshake, std::string bytes)
    {
        handshake->receive(&bytes);
        return bytes.empty() ? handshake->output() : "unread";
    }

    static void addVersions()
    {
        QTest::addColumn<std::string>("version");
        QTest::newRow("3.3") << "RFB 003.003\n"s;
        QTest::newRow("3.7") << "RFB 003.007\n"s;
        QTest::newRow("3.8") << "RFB 003.008\n"s;
    }

private slots:
    void versionsAreSpoken_data()
    {
        QTest::addColumn<std::string>("version");
        QTest::addColumn<std::string>("types"); // the bytes between the version and the challenge
        QTest::addColumn<bool>("choosesType");
        QTest::addColumn<bool>("hearsReason");
        QTest::newRow("3.3") << "RFB 003.003\n"s << hex("00000002") << false << false;
        QTest::newRow("3.5") << "RFB 003.005\n"s << hex("00000002") << false << false;
        QTest::newRow("3.7") << "RFB 003.007\n"s << hex("0102") << true << false;
        QTest::newRow("3.8") << "RFB 003.008\n"s << hex("0102") << true << true;
        QTest::newRow("3.889") << "RFB 003.889\n"s << hex("0102") << true << true;
    }

    void versionsAreSpoken()
    {
        QFETCH(std::string, version);
        QFETCH(std::string, types);
        QFETCH(bool, choosesType);
        QFETCH(bool, hearsReason);
        for (const bool isAccepted : {true, false}) {
            RfbHandshake handshake(plain());
            QCOMPARE(handshake.output(), std::string());
            if (choosesType) {
                QCOMPARE(answerTo(&handshake, version), types);
                QCOMPARE(handshake.state(), State::SecurityType);
                QCOMPARE(answerTo(&handshake, hex("02")), challenge);
            } else {
                QCOMPARE(answerTo(&handshake, version), types + challenge);
            }
            QCOMPARE(handshake.state(), State::Response);
            QCOMPARE(answerTo(&handshake, response), std::string());
            QCOMPARE(handshake.state(), State::Judgement);
            QCOMPARE(handshake.response(), response);
            QVERIFY(!handshake.usesTls());
            if (isAccepted) {
                handshake.accept();
                QCOMPARE(handshake.output(), hex("00000000"));
                QCOMPARE(handshake.state(), State::Accepted);
            } else {
                handshake.refuse("no");
                QCOMPARE(handshake.output(), hex("00000001") + (hearsReason ? reason("no") : std::string()));
                QCOMPARE(handshake.state(), State::Refused);
                QVERIFY(!handshake.wantsOtherType());
            }
        }
    }

    // What follows the handshake is left in the input.
    void bytesMayComeInAnyPieces_data() { addVersions(); }

    void bytesMayComeInAnyPieces()
    {
        QFETCH(std::string, version);
        const std::string all = clientBytes(version) + "next";
        RfbHandshake whole(plain());
        std::string wholeInput = all;
        whole.receive(&wholeInput);
        const std::string expected = whole.output();
        for (size_t split = 0; split <= all.size(); ++split) {
            RfbHandshake handshake(plain());
            std::string input = all.substr(0, split);
            handshake.receive(&input);
            input += all.substr(split);
            handshake.receive(&input);
            QCOMPARE(handshake.state(), State::Judgement);
            QCOMPARE(input, "next"s);
            QCOMPARE(handshake.response(), response);
            QCOMPARE(handshake.output(), expected);
            handshake.accept();
            handshake.receive(&input);
            QCOMPARE(input, "next"s);
        }
    }

    // A reader that takes no more than wantedBytes() must get through without a byte of what follows.
    void wantedBytesEndWithTheHandshake_data() { addVersions(); }

    void wantedBytesEndWithTheHandshake()
    {
        QFETCH(std::string, version);
        const std::string all = clientBytes(version);
        RfbHandshake handshake(plain());
        std::string input;
        size_t taken = 0;
        while (handshake.wantedBytes() > input.size()) {
            QVERIFY(taken < all.size());
            input += all[taken++];
            handshake.receive(&input);
        }
        QCOMPARE(taken, all.size());
        QCOMPARE(handshake.state(), State::Judgement);
        QCOMPARE(handshake.wantedBytes(), size_t{0});
        handshake.accept();
        QCOMPARE(handshake.wantedBytes(), size_t{0});
    }

    void textThatIsNoVersionIsRefused_data()
    {
        QTest::addColumn<std::string>("input");
        QTest::newRow("one wrong byte") << "G"s;
        QTest::newRow("late wrong byte") << "RFB 003.008\r"s;
        QTest::newRow("letter for digit") << "RFB 003.00x\n"s;
        QTest::newRow("sign for digit") << "RFB +03.008\n"s;
        QTest::newRow("zero byte") << "RFB\0"s;
        QTest::newRow("lower case") << "rfb"s;
    }

    void textThatIsNoVersionIsRefused()
    {
        QFETCH(std::string, input);
        RfbHandshake handshake(plain());
        handshake.receive(&input);
        QCOMPARE(handshake.state(), State::Refused);
        QCOMPARE(handshake.output(), std::string());
        QVERIFY(!handshake.wantsOtherType());
    }

    void otherMajorVersionsAreRefused_data()
    {
        QTest::addColumn<std::string>("version");
        QTest::newRow("0") << "RFB 000.008\n"s;
        QTest::newRow("2") << "RFB 002.008\n"s;
        QTest::newRow("4") << "RFB 004.001\n"s;
        QTest::newRow("999") << "RFB 999.999\n"s;
    }

    void otherMajorVersionsAreRefused()
    {
        QFETCH(std::string, version);
        RfbHandshake handshake(offer(true, true, true));
        handshake.receive(&version);
        QCOMPARE(handshake.state(), State::Refused);
        QVERIFY(handshake.output().ends_with("This version of the protocol is not supported"));
    }

    void eachOfferHasItsTypes_data()
    {
        QTest::addColumn<bool>("tls");
        QTest::addColumn<bool>("plain");
        QTest::addColumn<bool>("none");
        QTest::addColumn<std::string>("types");
        QTest::newRow("tls") << true << false << false << hex("0113");
        QTest::newRow("plain") << false << true << false << hex("0102");
        QTest::newRow("tls first") << true << true << false << hex("021302");
        QTest::newRow("none") << false << false << true << hex("0101");
    }

    void eachOfferHasItsTypes()
    {
        QFETCH(bool, tls);
        QFETCH(bool, plain);
        QFETCH(bool, none);
        QFETCH(std::string, types);
        for (const char *const version : {"RFB 003.007\n", "RFB 003.008\n"}) {
            RfbHandshake handshake(offer(tls, plain, none));
            QCOMPARE(answerTo(&handshake, version), types);
        }
    }

    void otherSecurityTypeIsRefused_data()
    {
        QTest::addColumn<std::string>("version");
        QTest::addColumn<std::string>("given");
        QTest::addColumn<std::string>("answer");
        const std::string text = "This security type was not offered";
        QTest::newRow("3.7") << "RFB 003.007\n"s << std::string() << std::string();
        QTest::newRow("3.8") << "RFB 003.008\n"s << std::string() << hex("00000001") + reason(text);
        QTest::newRow("3.8 with a reason") << "RFB 003.008\n"s
                                           << "use TLS"s << hex("00000001") + reason("use TLS");
    }

    void otherSecurityTypeIsRefused()
    {
        QFETCH(std::string, version);
        QFETCH(std::string, given);
        QFETCH(std::string, answer);
        for (const int offered : {1, 2, 19}) {
            for (int type = 0; type < 256; ++type) {
                if (type == offered) {
                    continue;
                }
                RfbOffer made = offer(offered == 19, offered == 2, offered == 1);
                made.reason = given;
                RfbHandshake handshake(made);
                QVERIFY(!answerTo(&handshake, version).empty());
                std::string input = static_cast<char>(type) + response;
                handshake.receive(&input);
                QCOMPARE(handshake.state(), State::Refused);
                QCOMPARE(handshake.output(), answer);
                QVERIFY(handshake.response().empty());
                QVERIFY(handshake.wantsOtherType());
                QVERIFY(!handshake.usesTls());
            }
        }
    }

    void clientIsTurnedAwayWithAReason_data()
    {
        QTest::addColumn<std::string>("version");
        QTest::addColumn<std::string>("answer");
        QTest::newRow("3.3") << "RFB 003.003\n"s << hex("00000000") + reason("later");
        QTest::newRow("3.7") << "RFB 003.007\n"s << hex("00") + reason("later");
        QTest::newRow("3.8") << "RFB 003.008\n"s << hex("00") + reason("later");
    }

    void clientIsTurnedAwayWithAReason()
    {
        QFETCH(std::string, version);
        QFETCH(std::string, answer);
        RfbOffer made = offer(true, true, true);
        made.turnsAway = true;
        made.reason = "later";
        RfbOffer nothing;
        nothing.reason = "later";
        for (const RfbOffer &each : {made, nothing}) {
            RfbHandshake handshake(each);
            std::string input = clientBytes(version);
            handshake.receive(&input);
            QCOMPARE(handshake.state(), State::Refused);
            QCOMPARE(handshake.output(), answer);
            QVERIFY(handshake.response().empty());
        }
    }

    // Version 3.3 has no VeNCrypt.
    void oldClientHearsWhyItNeedsTls()
    {
        RfbOffer made = offer(true, false);
        made.reason = "use TLS";
        RfbHandshake handshake(made);
        QCOMPARE(answerTo(&handshake, "RFB 003.003\n"), hex("00000000") + reason("use TLS"));
        QCOMPARE(handshake.state(), State::Refused);
        QVERIFY(handshake.wantsOtherType());
    }

    void clientWithoutPasswordIsAccepted_data()
    {
        QTest::addColumn<std::string>("version");
        QTest::addColumn<std::string>("choice");
        QTest::addColumn<std::string>("output");
        QTest::newRow("3.3") << "RFB 003.003\n"s << std::string() << hex("00000001");
        QTest::newRow("3.7") << "RFB 003.007\n"s << hex("01") << hex("0101");
        QTest::newRow("3.8") << "RFB 003.008\n"s << hex("01") << hex("010100000000");
    }

    void clientWithoutPasswordIsAccepted()
    {
        QFETCH(std::string, version);
        QFETCH(std::string, choice);
        QFETCH(std::string, output);
        RfbHandshake handshake(offer(false, false, true));
        std::string input = version + choice + "next";
        handshake.receive(&input);
        QCOMPARE(handshake.state(), State::Accepted);
        QCOMPARE(handshake.output(), output);
        QCOMPARE(input, "next"s);
    }

    void veNCryptLeadsToTls()
    {
        for (const char *const version : {"RFB 003.007\n", "RFB 003.008\n"}) {
            RfbHandshake handshake(offer(true, false));
            QCOMPARE(answerTo(&handshake, version), hex("0113"));
            QCOMPARE(answerTo(&handshake, hex("13")), hex("0002")); // our version of VeNCrypt
            QCOMPARE(handshake.state(), State::VeNCryptVersion);
            QCOMPARE(answerTo(&handshake, hex("0002")), hex("000100000105")); // understood, one type: X509Vnc
            QCOMPARE(handshake.state(), State::VeNCryptType);
            QCOMPARE(answerTo(&handshake, hex("00000105")), hex("01"));
            QCOMPARE(handshake.state(), State::StartTls);
            QVERIFY(handshake.usesTls());
            handshake.tlsStarted();
            QCOMPARE(handshake.output(), challenge);
            QCOMPARE(answerTo(&handshake, response), std::string());
            QCOMPARE(handshake.state(), State::Judgement);
            QCOMPARE(handshake.response(), response);
            handshake.accept();
            QCOMPARE(handshake.output(), hex("00000000"));
            QCOMPARE(handshake.state(), State::Accepted);
        }
    }

    // What follows the choice belongs to TLS, also if it comes at once.
    void bytesOfTlsAreNotRead()
    {
        const std::string all = "RFB 003.008\n" + hex("13000200000105");
        for (size_t split = 0; split <= all.size(); ++split) {
            RfbHandshake handshake(offer(true, true));
            std::string input = all.substr(0, split);
            handshake.receive(&input);
            QVERIFY(handshake.wantedBytes() <= all.size() - split + input.size());
            input += all.substr(split) + "\x16\x03\x01";
            handshake.receive(&input);
            QCOMPARE(handshake.state(), State::StartTls);
            QCOMPARE(handshake.wantedBytes(), size_t{0});
            QCOMPARE(input, "\x16\x03\x01"s);
            QCOMPARE(handshake.output(), hex("021302") + hex("0002") + hex("000100000105") + hex("01"));
            handshake.receive(&input);
            QCOMPARE(input, "\x16\x03\x01"s);
        }
    }

    void otherVersionOfVeNCryptIsRefused_data()
    {
        QTest::addColumn<std::string>("version");
        QTest::newRow("0.0") << hex("0000");
        QTest::newRow("0.1") << hex("0001");
        QTest::newRow("0.3") << hex("0003");
        QTest::newRow("1.2") << hex("0102");
    }

    void otherVersionOfVeNCryptIsRefused()
    {
        QFETCH(std::string, version);
        RfbHandshake handshake(offer(true, false));
        QCOMPARE(answerTo(&handshake, "RFB 003.008\n"), hex("0113"));
        QCOMPARE(answerTo(&handshake, hex("13")), hex("0002"));
        QCOMPARE(answerTo(&handshake, version), hex("01"));
        QCOMPARE(handshake.state(), State::Refused);
    }

    void otherTypeInsideOfVeNCryptIsRefused_data()
    {
        QTest::addColumn<std::string>("type");
        QTest::newRow("Plain, which sends the password") << hex("00000100");
        QTest::newRow("TLSNone") << hex("00000101");
        QTest::newRow("TLSVnc, without a certificate") << hex("00000102");
        QTest::newRow("X509None") << hex("00000104");
        QTest::newRow("X509Plain") << hex("00000106");
        QTest::newRow("VncAuth") << hex("00000002");
        QTest::newRow("None") << hex("00000001");
        QTest::newRow("in the other order of bytes") << hex("05010000");
    }

    void otherTypeInsideOfVeNCryptIsRefused()
    {
        QFETCH(std::string, type);
        RfbHandshake handshake(offer(true, true, true));
        QVERIFY(!answerTo(&handshake, "RFB 003.008\n").empty());
        QCOMPARE(answerTo(&handshake, hex("13")), hex("0002"));
        QVERIFY(!answerTo(&handshake, hex("0002")).empty());
        QCOMPARE(answerTo(&handshake, type), hex("00"));
        QCOMPARE(handshake.state(), State::Refused);
        QVERIFY(handshake.wantsOtherType());
        QVERIFY(!handshake.usesTls());
    }
};

ZARVO_TEST(RfbHandshakeTest)
#include "tst_rfbhandshake.moc"
