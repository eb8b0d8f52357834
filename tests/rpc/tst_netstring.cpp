// SPDX-License-Identifier: MIT
#include "rpc/netstring.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestNetString : public QObject
{
    Q_OBJECT

private slots:
    void payloadIsFramed_data();
    void payloadIsFramed();
    void frameIsRemovedFromTheFront_data();
    void frameIsRemovedFromTheFront();
    void incompleteFrameNeedsMoreBytes_data();
    void incompleteFrameNeedsMoreBytes();
    void invalidFrameIsRefused_data();
    void invalidFrameIsRefused();
    void frameIsDecodedWhereverItWasSplit_data();
    void frameIsDecodedWhereverItWasSplit();
    void oneFrameIsDecodedPerCall();
    void payloadIsTheSameAfterARoundTrip_data();
    void payloadIsTheSameAfterARoundTrip();
};

namespace {

const QString kBadLength = u"Invalid NetString length"_s;
const QString kNoComma = u"Missing NetString comma"_s;

QByteArray fill(qsizetype size)
{
    return QByteArray(size, 'x');
}

} // namespace

void TestNetString::payloadIsFramed_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("null") << QByteArray() << "0:,"_ba;
    QTest::newRow("empty") << QByteArray("") << "0:,"_ba;
    QTest::newRow("one byte") << "a"_ba
                              << "1:a,"_ba;
    QTest::newRow("hello") << "hello"_ba
                           << "5:hello,"_ba;
    QTest::newRow("9 bytes") << fill(9) << QByteArray("9:" + fill(9) + ',');
    QTest::newRow("10 bytes") << fill(10) << QByteArray("10:" + fill(10) + ',');
    QTest::newRow("looks like a frame") << "1:a,"_ba
                                        << "4:1:a,,"_ba;
    QTest::newRow("any bytes") << QByteArray("\0\xff\n:,", 5) << QByteArray("5:\0\xff\n:,,", 8);
    QTest::newRow("bytes are counted, not characters") << QByteArray("\xc3\xa4") << QByteArray("2:\xc3\xa4,");
    QTest::newRow("more than the decoder takes") << fill(70000) << QByteArray("70000:" + fill(70000) + ',');
}

void TestNetString::payloadIsFramed()
{
    QFETCH(const QByteArray, payload);
    QFETCH(const QByteArray, frame);
    QVERIFY(encodeNetString(payload) == frame);
}

void TestNetString::frameIsRemovedFromTheFront_data()
{
    QTest::addColumn<QByteArray>("buffer");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("rest");
    const auto frame = [](const QByteArray &prefix, qsizetype size) {
        return QByteArray(prefix + ':' + fill(size) + ',');
    };
    QTest::newRow("empty payload") << "0:,"_ba << QByteArray("") << QByteArray("");
    QTest::newRow("hello") << "5:hello,"_ba
                           << "hello"_ba << QByteArray("");
    QTest::newRow("another frame after it") << "5:hello,5:world,"_ba
                                            << "hello"_ba
                                            << "5:world,"_ba;
    QTest::newRow("junk after it") << "5:hello,junk"_ba
                                   << "hello"_ba
                                   << "junk"_ba;
    QTest::newRow("comma in the payload") << "3:,,,,"_ba
                                          << ",,,"_ba << QByteArray("");
    QTest::newRow("colon in the payload") << "3::::,"_ba
                                          << ":::"_ba << QByteArray("");
    QTest::newRow("NUL in the payload") << QByteArray("3:a\0b,", 6) << QByteArray("a\0b", 3) << QByteArray("");
    QTest::newRow("leading zeros") << "000012:abcdefghijkl,"_ba
                                   << "abcdefghijkl"_ba << QByteArray("");
    QTest::newRow("zeros alone") << "00:,x"_ba << QByteArray("") << "x"_ba;
    QTest::newRow("blanks before the length") << " \t\n\v\f\r5:hello,"_ba
                                              << "hello"_ba << QByteArray("");
    QTest::newRow("65535 bytes") << frame("65535", 65535) << fill(65535) << QByteArray("");
    QTest::newRow("65536 bytes") << frame("65536", 65536) << fill(65536) << QByteArray("");
    QTest::newRow("65536 bytes and more after it")
        << QByteArray(frame("65536", 65536) + "1:a") << fill(65536) << "1:a"_ba;
    QTest::newRow("65536 bytes with a leading zero") << frame("065536", 65536) << fill(65536) << QByteArray("");
}

void TestNetString::frameIsRemovedFromTheFront()
{
    QFETCH(QByteArray, buffer);
    QFETCH(const QByteArray, payload);
    QFETCH(const QByteArray, rest);
    QByteArray taken = "before";
    QString error = u"untouched"_s;
    QCOMPARE(decodeNetString(buffer, taken, error), 0);
    QVERIFY(taken == payload);
    QCOMPARE(buffer, rest);
    QCOMPARE(error, u"untouched"_s);
}

void TestNetString::incompleteFrameNeedsMoreBytes_data()
{
    QTest::addColumn<QByteArray>("buffer");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("one digit") << "5"_ba;
    QTest::newRow("five digits, no colon") << "12345"_ba;
    QTest::newRow("five zeros, no colon") << "00000"_ba;
    QTest::newRow("five other characters, no colon") << "hello"_ba; // invalid only once the colon is there
    QTest::newRow("no payload yet") << "5:"_ba;
    QTest::newRow("part of the payload") << "5:hel"_ba;
    QTest::newRow("no comma yet") << "5:hello"_ba;
    QTest::newRow("empty payload, no comma yet") << "0:"_ba;
    QTest::newRow("largest length") << "65536:"_ba;
    QTest::newRow("largest frame without its comma") << QByteArray("65536:" + fill(65536));
    QTest::newRow("leading zeros") << "000012:abc"_ba;
}

void TestNetString::incompleteFrameNeedsMoreBytes()
{
    QFETCH(const QByteArray, buffer);
    QByteArray left = buffer;
    QByteArray payload = "untouched";
    QString error = u"untouched"_s;
    QCOMPARE(decodeNetString(left, payload, error), 1);
    QVERIFY(left == buffer);
    QCOMPARE(payload, "untouched"_ba);
    QCOMPARE(error, u"untouched"_s);
}

void TestNetString::invalidFrameIsRefused_data()
{
    QTest::addColumn<QByteArray>("buffer");
    QTest::addColumn<QString>("reason");
    QTest::newRow("six digits, no colon") << "123456"_ba << kBadLength;
    QTest::newRow("six zeros, no colon") << "000012"_ba << kBadLength;
    QTest::newRow("six other characters, no colon") << "GET / "_ba << kBadLength;
    QTest::newRow("65537, no payload yet") << "65537:"_ba << kBadLength;
    QTest::newRow("65537, whole") << QByteArray("65537:" + fill(65537) + ',') << kBadLength;
    QTest::newRow("99999") << "99999:"_ba << kBadLength;
    QTest::newRow("65537 with leading zeros") << "0000065537:"_ba << kBadLength;
    QTest::newRow("32 bits and more") << "4294967296:"_ba << kBadLength;
    QTest::newRow("64 bits, largest") << "18446744073709551615:"_ba << kBadLength;
    QTest::newRow("64 bits and more") << "18446744073709551617:a,"_ba << kBadLength;
    QTest::newRow("colon alone") << ":"_ba << kBadLength;
    QTest::newRow("no length") << ":hello,"_ba << kBadLength;
    QTest::newRow("letters") << "abc:"_ba << kBadLength;
    QTest::newRow("hexadecimal digits") << "0x1:a,"_ba << kBadLength;
    QTest::newRow("letter after it") << "5a:hello,"_ba << kBadLength;
    QTest::newRow("letter before") << "a5:hello,"_ba << kBadLength;
    QTest::newRow("minus") << "-1:a,"_ba << kBadLength;
    QTest::newRow("minus zero") << "-0:,"_ba << kBadLength;
    QTest::newRow("plus") << "+5:hello,"_ba << kBadLength;
    QTest::newRow("fraction") << "5.0:hello,"_ba << kBadLength;
    QTest::newRow("blank after it") << "5 :hello,"_ba << kBadLength;
    QTest::newRow("blank in between") << "1 1:hello world,"_ba << kBadLength;
    QTest::newRow("blanks alone") << "  :"_ba << kBadLength;
    QTest::newRow("blank and plus") << " +5:hello,"_ba << kBadLength;
    QTest::newRow("NUL after it") << QByteArray("5\0:hello,", 9) << kBadLength;
    QTest::newRow("NUL before") << QByteArray("\0005:hello,", 9) << kBadLength;
    QTest::newRow("another byte instead of the comma") << "3:abcX"_ba << kNoComma;
    QTest::newRow("colon instead of the comma") << "3:abc:"_ba << kNoComma;
    QTest::newRow("no comma before the next frame") << "5:hello5:world,"_ba << kNoComma;
    QTest::newRow("empty payload without comma") << "0:x"_ba << kNoComma;
    QTest::newRow("length one too small") << "4:hello,"_ba << kNoComma;
    QTest::newRow("largest frame without comma") << QByteArray("65536:" + fill(65536) + 'x') << kNoComma;
}

void TestNetString::invalidFrameIsRefused()
{
    QFETCH(const QByteArray, buffer);
    QFETCH(const QString, reason);
    QByteArray left = buffer;
    QByteArray payload = "untouched";
    QString error;
    QCOMPARE(decodeNetString(left, payload, error), -1);
    QCOMPARE(error, reason);
    QVERIFY(left == buffer);
    QCOMPARE(payload, "untouched"_ba);
}

void TestNetString::frameIsDecodedWhereverItWasSplit_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QByteArray>("payload");
    QTest::newRow("empty payload") << "0:,"_ba << QByteArray("");
    QTest::newRow("hello") << "5:hello,"_ba
                           << "hello"_ba;
    QTest::newRow("two digits") << "12:0123456789:,,"_ba
                                << "0123456789:,"_ba;
    QTest::newRow("five digits") << QByteArray("10000:" + fill(10000) + ',') << fill(10000);
}

void TestNetString::frameIsDecodedWhereverItWasSplit()
{
    QFETCH(const QByteArray, frame);
    QFETCH(const QByteArray, payload);
    QByteArray taken;
    QString error;
    for (qsizetype split = 0; split < frame.size(); ++split) {
        QByteArray buffer = frame.first(split);
        QCOMPARE(decodeNetString(buffer, taken, error), 1);
        buffer += frame.sliced(split);
        QCOMPARE(decodeNetString(buffer, taken, error), 0);
        QVERIFY(taken == payload);
        QVERIFY(buffer.isEmpty());
    }
}

void TestNetString::oneFrameIsDecodedPerCall()
{
    QByteArray buffer = "1:a,0:,2:bc,3:d";
    QByteArray payload;
    QString error;
    for (const char *expected : {"a", "", "bc"}) {
        QCOMPARE(decodeNetString(buffer, payload, error), 0);
        QCOMPARE(payload, QByteArray(expected));
    }
    QCOMPARE(decodeNetString(buffer, payload, error), 1);
    QCOMPARE(buffer, "3:d"_ba);
}

void TestNetString::payloadIsTheSameAfterARoundTrip_data()
{
    QTest::addColumn<qsizetype>("size");
    for (qsizetype power = 1; power <= 65536; power *= 2) {
        for (qsizetype size = power - 1; size <= qMin<qsizetype>(power + 1, 65536); ++size) {
            QTest::addRow("%lld around %lld", static_cast<long long>(size), static_cast<long long>(power)) << size;
        }
    }
}

void TestNetString::payloadIsTheSameAfterARoundTrip()
{
    QFETCH(const qsizetype, size);
    QByteArray payload(size, '\0');
    for (qsizetype i = 0; i < size; ++i) {
        payload[i] = static_cast<char>(i * 7);
    }
    QByteArray buffer = encodeNetString(payload) + "rest";
    QByteArray taken;
    QString error;
    QCOMPARE(decodeNetString(buffer, taken, error), 0);
    QVERIFY(taken == payload);
    QCOMPARE(buffer, "rest"_ba);
}

ZARVO_TEST(TestNetString)

#include "tst_netstring.moc"
