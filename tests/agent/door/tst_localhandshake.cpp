// SPDX-License-Identifier: MIT
#include "agent/door/localhandshake.h"
#include "tests/agent/confined/visitorends.h"
#include "tests/testmain.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

class LocalHandshakeTest final : public QObject
{
    Q_OBJECT

private:
    std::array<int, 2> ends = {-1, -1}; ///< the viewer's, the handshake's
    std::unique_ptr<LocalHandshake> handshake;
    std::unique_ptr<QSignalSpy> agreed;
    std::unique_ptr<QSignalSpy> failed;

    void write(const QByteArray &bytes) const { writeBytes(ends[0], bytes); }
    static QByteArray hex(const char *digits) { return QByteArray::fromHex(digits); }

private slots:
    void init()
    {
        ends = makePair();
        handshake = std::make_unique<LocalHandshake>(ends[1]);
        agreed = std::make_unique<QSignalSpy>(handshake.get(), &LocalHandshake::agreed);
        failed = std::make_unique<QSignalSpy>(handshake.get(), &LocalHandshake::failed);
    }

    void cleanup()
    {
        handshake.reset();
        ::close(ends[0]);
    }

    void viewerIsAgreedWith_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("3.3") << QByteArray("RFB 003.003\n") << hex("00000001");
        QTest::newRow("3.7") << QByteArray("RFB 003.007\n\x01") << hex("0101");
        QTest::newRow("3.8") << QByteArray("RFB 003.008\n\x01") << hex("010100000000");
    }

    void viewerIsAgreedWith()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, answer);
        for (const char byte : sent) {
            QCOMPARE(agreed->count(), 0);
            write(QByteArray(1, byte));
            QCoreApplication::processEvents();
        }
        QTRY_COMPARE(agreed->count(), 1);
        QCOMPARE(failed->count(), 0);
        QCOMPARE(readBytes(ends[0], 12 + answer.size()), "RFB 003.008\n" + answer);
        ::close(handshake->takeClient());
    }

    // What follows belongs to the X server.
    void noByteTooMuchIsRead()
    {
        write("RFB 003.008\n\x01more");
        QTRY_COMPARE(agreed->count(), 1);
        const int client = handshake->takeClient();
        handshake.reset(); // the socket is not its own any more
        QByteArray left(16, Qt::Uninitialized);
        QCOMPARE(::read(client, left.data(), 16), ssize_t{4});
        QCOMPARE(left.first(4), QByteArray("more"));
        ::close(client);
    }

    void otherViewerFails_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::newRow("another protocol") << QByteArray("GET / HTTP/1.1\r\n");
        QTest::newRow("another version") << QByteArray("RFB 004.000\n");
        QTest::newRow("VNC authentication") << QByteArray("RFB 003.008\n\x02");
        QTest::newRow("VeNCrypt") << QByteArray("RFB 003.008\n\x13");
        QTest::newRow("no type") << QByteArray("RFB 003.007\n\x00", 13);
    }

    void otherViewerFails()
    {
        QFETCH(QByteArray, sent);
        write(sent);
        QTRY_COMPARE(failed->count(), 1);
        QCOMPARE(agreed->count(), 0);
        QCOMPARE(readBytes(ends[0], 12), QByteArray("RFB 003.008\n"));
        handshake.reset();
        QCOMPARE(::send(ends[0], "x", 1, MSG_NOSIGNAL), ssize_t{-1}); // closed
    }

    void viewerMayLeaveAtEachStep()
    {
        const QByteArray all = "RFB 003.008\n";
        for (qsizetype length = 0; length <= all.size(); ++length) {
            cleanup();
            init();
            write(all.first(length));
            ::shutdown(ends[0], SHUT_RDWR);
            QTRY_COMPARE(failed->count(), 1);
            QCOMPARE(agreed->count(), 0);
        }
    }
};

ZARVO_TEST(LocalHandshakeTest)
#include "tst_localhandshake.moc"
