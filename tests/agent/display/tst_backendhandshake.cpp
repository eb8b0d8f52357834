// SPDX-License-Identifier: MIT
#include "agent/display/backendhandshake.h"
#include "tests/testmain.h"

#include <QTest>

using State = BackendHandshake::State;

class BackendHandshakeTest final : public QObject
{
    Q_OBJECT

private:
    static QByteArray hex(const char *digits) { return QByteArray::fromHex(digits); }

private slots:
    void handshakeSucceeds()
    {
        BackendHandshake handshake;
        QByteArray input = "RFB 003.008\n";
        handshake.receive(&input);
        QCOMPARE(handshake.output(), QByteArray("RFB 003.008\n"));
        input = hex("0101");
        handshake.receive(&input);
        QCOMPARE(handshake.output(), hex("01"));
        input = hex("00000000") + "next";
        handshake.receive(&input);
        QCOMPARE(handshake.state(), State::Done);
        QCOMPARE(handshake.output(), QByteArray());
        QCOMPARE(input, QByteArray("next"));
    }

    void bytesMayComeInAnyPieces()
    {
        const QByteArray all = QByteArray("RFB 003.008\n") + hex("03021310") + hex("00000000");
        const QByteArray good = QByteArray("RFB 003.008\n") + hex("03020113") + hex("00000000") + "next";
        for (qsizetype split = 0; split <= good.size(); ++split) {
            BackendHandshake handshake;
            QByteArray input = good.first(split);
            handshake.receive(&input);
            input += good.sliced(split);
            handshake.receive(&input);
            QCOMPARE(handshake.state(), State::Done);
            QCOMPARE(handshake.output(), QByteArray("RFB 003.008\n") + hex("01"));
            QCOMPARE(input, QByteArray("next"));
        }
        BackendHandshake refused;
        QByteArray input = all;
        refused.receive(&input);
        QCOMPARE(refused.state(), State::Failed);
    }

    void unexpectedAnswerFails_data()
    {
        QTest::addColumn<QByteArray>("input");
        const QByteArray version = "RFB 003.008\n";
        QTest::newRow("version") << QByteArray("RFB 003.007\n");
        QTest::newRow("no RFB") << QByteArray("HTTP/1.1 200");
        QTest::newRow("no types") << version + hex("00");
        QTest::newRow("other type") << version + hex("0102");
        QTest::newRow("refused") << version + hex("0101") + hex("00000001");
    }

    void unexpectedAnswerFails()
    {
        QFETCH(QByteArray, input);
        BackendHandshake handshake;
        handshake.receive(&input);
        QCOMPARE(handshake.state(), State::Failed);
    }
};

ZARVO_TEST(BackendHandshakeTest)
#include "tst_backendhandshake.moc"
