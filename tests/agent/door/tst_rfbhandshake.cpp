// SPDX-License-Identifier: MIT
#include "agent/door/rfbhandshake.h"
#include "tests/testmain.h"

#include <QTest>

using State = RfbHandshake::State;

class RfbHandshakeTest final : public QObject
{
    Q_OBJECT

private:
    const QByteArray challenge = QByteArray("0123456789abcdef");
    const QByteArray response = QByteArray("fedcba9876543210");

    static QByteArray hex(const char *digits) { return QByteArray::fromHex(digits); }

    /** The bytes that a client sends, up to and including its response. */
    QByteArray clientBytes(const QByteArray &version) const
    {
        const bool choosesType = version != "RFB 003.003\n";
        return version + (choosesType ? hex("02") : QByteArray()) + response;
    }

    static QByteArray reason(const QByteArray &text)
    {
        return QByteArray(3, '\0') + static_cast<char>(text.size()) + text;
    }

private slots:
    void versionsAreSpoken_data()
    {
        QTest::addColumn<QByteArray>("version");
        QTest::addColumn<QByteArray>("offer"); // the bytes between the version and the challenge
        QTest::addColumn<bool>("choosesType");
        QTest::addColumn<bool>("hearsReason");
        QTest::newRow("3.3") << QByteArray("RFB 003.003\n") << hex("00000002") << false << false;
        QTest::newRow("3.5") << QByteArray("RFB 003.005\n") << hex("00000002") << false << false;
        QTest::newRow("3.7") << QByteArray("RFB 003.007\n") << hex("0102") << true << false;
        QTest::newRow("3.8") << QByteArray("RFB 003.008\n") << hex("0102") << true << true;
        QTest::newRow("3.889") << QByteArray("RFB 003.889\n") << hex("0102") << true << true;
    }

    void versionsAreSpoken()
    {
        QFETCH(QByteArray, version);
        QFETCH(QByteArray, offer);
        QFETCH(bool, choosesType);
        QFETCH(bool, hearsReason);
        for (const bool isAccepted : {true, false}) {
            RfbHandshake handshake(challenge);
            QCOMPARE(handshake.output(), QByteArray("RFB 003.008\n"));
            QByteArray input = version;
            handshake.receive(&input);
            if (choosesType) {
                QCOMPARE(handshake.state(), State::SecurityType);
                QCOMPARE(handshake.output(), offer);
                input = hex("02");
                handshake.receive(&input);
                QCOMPARE(handshake.output(), challenge);
            } else {
                QCOMPARE(handshake.output(), offer + challenge);
            }
            QCOMPARE(handshake.state(), State::Response);
            input = response;
            handshake.receive(&input);
            QCOMPARE(handshake.state(), State::Judgement);
            QCOMPARE(handshake.response(), response);
            QCOMPARE(handshake.output(), QByteArray());
            if (isAccepted) {
                handshake.accept();
                QCOMPARE(handshake.output(), hex("00000000"));
                QCOMPARE(handshake.state(), State::Accepted);
            } else {
                handshake.refuse("no");
                QCOMPARE(handshake.output(), hex("00000001") + (hearsReason ? reason("no") : QByteArray()));
                QCOMPARE(handshake.state(), State::Refused);
            }
        }
    }

    // What follows the handshake is left in the input.
    void bytesMayComeInAnyPieces_data()
    {
        QTest::addColumn<QByteArray>("version");
        QTest::newRow("3.3") << QByteArray("RFB 003.003\n");
        QTest::newRow("3.7") << QByteArray("RFB 003.007\n");
        QTest::newRow("3.8") << QByteArray("RFB 003.008\n");
    }

    void bytesMayComeInAnyPieces()
    {
        QFETCH(QByteArray, version);
        const QByteArray all = clientBytes(version) + "next";
        RfbHandshake whole(challenge);
        QByteArray wholeInput = all;
        whole.receive(&wholeInput);
        const QByteArray expected = whole.output();
        for (qsizetype split = 0; split <= all.size(); ++split) {
            RfbHandshake handshake(challenge);
            QByteArray input = all.first(split);
            handshake.receive(&input);
            input += all.sliced(split);
            handshake.receive(&input);
            QCOMPARE(handshake.state(), State::Judgement);
            QCOMPARE(input, QByteArray("next"));
            QCOMPARE(handshake.response(), response);
            QCOMPARE(handshake.output(), expected);
            handshake.accept();
            handshake.receive(&input);
            QCOMPARE(input, QByteArray("next"));
        }
    }

    void textThatIsNoVersionIsRefused_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::newRow("one wrong byte") << QByteArray("G");
        QTest::newRow("late wrong byte") << QByteArray("RFB 003.008\r");
        QTest::newRow("letter for digit") << QByteArray("RFB 003.00x\n");
        QTest::newRow("sign for digit") << QByteArray("RFB +03.008\n");
        QTest::newRow("zero byte") << QByteArray("RFB\0", 4);
        QTest::newRow("lower case") << QByteArray("rfb");
    }

    void textThatIsNoVersionIsRefused()
    {
        QFETCH(QByteArray, input);
        RfbHandshake handshake(challenge);
        QCOMPARE(handshake.output().size(), 12);
        handshake.receive(&input);
        QCOMPARE(handshake.state(), State::Refused);
        QCOMPARE(handshake.output(), QByteArray());
    }

    void otherMajorVersionsAreRefused_data()
    {
        QTest::addColumn<QByteArray>("version");
        QTest::newRow("0") << QByteArray("RFB 000.008\n");
        QTest::newRow("2") << QByteArray("RFB 002.008\n");
        QTest::newRow("4") << QByteArray("RFB 004.001\n");
        QTest::newRow("999") << QByteArray("RFB 999.999\n");
    }

    void otherMajorVersionsAreRefused()
    {
        QFETCH(QByteArray, version);
        RfbHandshake handshake(challenge);
        QCOMPARE(handshake.output().size(), 12);
        handshake.receive(&version);
        QCOMPARE(handshake.state(), State::Refused);
        QVERIFY(handshake.output().endsWith("This version of the protocol is not supported"));
    }

    void otherSecurityTypeIsRefused_data()
    {
        QTest::addColumn<QByteArray>("version");
        QTest::addColumn<QByteArray>("answer");
        const QByteArray text = "This security type was not offered";
        QTest::newRow("3.7") << QByteArray("RFB 003.007\n") << QByteArray();
        QTest::newRow("3.8") << QByteArray("RFB 003.008\n") << hex("00000001") + reason(text);
    }

    void otherSecurityTypeIsRefused()
    {
        QFETCH(QByteArray, version);
        QFETCH(QByteArray, answer);
        for (int type = 0; type < 256; ++type) {
            if (type == 2) {
                continue;
            }
            RfbHandshake handshake(challenge);
            QByteArray input = version;
            handshake.receive(&input);
            QVERIFY(!handshake.output().isEmpty());
            input = QByteArray(1, static_cast<char>(type)) + response;
            handshake.receive(&input);
            QCOMPARE(handshake.state(), State::Refused);
            QCOMPARE(handshake.output(), answer);
            QVERIFY(handshake.response().isEmpty());
        }
    }

    void clientIsTurnedAwayWithAReason_data()
    {
        QTest::addColumn<QByteArray>("version");
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("3.3") << QByteArray("RFB 003.003\n") << hex("00000000") + reason("later");
        QTest::newRow("3.7") << QByteArray("RFB 003.007\n") << hex("00") + reason("later");
        QTest::newRow("3.8") << QByteArray("RFB 003.008\n") << hex("00") + reason("later");
    }

    void clientIsTurnedAwayWithAReason()
    {
        QFETCH(QByteArray, version);
        QFETCH(QByteArray, answer);
        RfbHandshake handshake(challenge);
        handshake.turnAway("later");
        QCOMPARE(handshake.output(), QByteArray("RFB 003.008\n"));
        QByteArray input = clientBytes(version);
        handshake.receive(&input);
        QCOMPARE(handshake.state(), State::Refused);
        QCOMPARE(handshake.output(), answer);
        QVERIFY(handshake.response().isEmpty());
    }
};

ZARVO_TEST(RfbHandshakeTest)
#include "tst_rfbhandshake.moc"
