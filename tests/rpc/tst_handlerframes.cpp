// SPDX-License-Identifier: MIT
#include "rpc/netstring.h"
#include "tests/rpc/handlertest.h"
#include "tests/testmain.h"

#include <QTest>
#include <QThreadPool>

using namespace Qt::StringLiterals;

class TestHandlerFrames : public HandlerTest
{
    Q_OBJECT

private slots:
    void frameMayArriveInPieces_data();
    void frameMayArriveInPieces();
    void framesOfOneReadAreAnsweredInOrder();
    void oneRequestRunsAtATime();
    void batchRunsInOrderOneByOne();
    void busyHandlerReadsNothing();
    void bytesThatArrivedWhileBusyAreReadAfterTheAnswer();
    void lengthIsCheckedAfterReadingAllThatHasArrived_data();
    void lengthIsCheckedAfterReadingAllThatHasArrived();
    void pipeliningPeerIsReadOneBufferAtATime();
    void framingErrorIsLoggedAndClosesTheDevice_data();
    void framingErrorIsLoggedAndClosesTheDevice();
    void framingErrorAfterARequestWaitsForTheAnswer();
};

void TestHandlerFrames::frameMayArriveInPieces_data()
{
    QTest::addColumn<qsizetype>("split"); // -1: every byte alone
    QTest::newRow("byte by byte") << qsizetype(-1);
    for (qsizetype split = 1; split < request("echo", "1").size(); ++split) {
        QTest::addRow("after %lld bytes", static_cast<long long>(split)) << split;
    }
}

void TestHandlerFrames::frameMayArriveInPieces()
{
    QFETCH(const qsizetype, split);
    const QByteArray frame = request("echo", "1");
    if (split == -1) {
        for (qsizetype i = 0; i + 1 < frame.size(); ++i) {
            device->feed(frame.sliced(i, 1));
        }
    } else {
        device->feed(frame.first(split));
    }
    QThreadPool::globalInstance()->waitForDone();
    deliverEvents();
    QCOMPARE(control->calls, 0);
    QCOMPARE(device->output(), QByteArray());
    device->feed(split == -1 ? frame.last(1) : frame.sliced(split));
    QVERIFY(QTest::qWaitFor([&] { return !device->output().isEmpty(); }, kPatienceMs));
    QCOMPARE(device->output(), answerFrame(success("1", "null")));
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestHandlerFrames::framesOfOneReadAreAnsweredInOrder()
{
    QByteArray sent;
    QByteArray expected;
    for (int i = 0; i < 50; ++i) {
        const QByteArray id = QByteArray::number(i);
        sent += request(i % 3 == 0 ? "fail" : "echo", id);
        expected += answerFrame(i % 3 == 0 ? failure(id) : success(id, "null"));
    }
    device->feed(sent);
    QTRY_COMPARE_WITH_TIMEOUT(device->output().size(), expected.size(), kPatienceMs);
    QCOMPARE(device->output(), expected);
    QCOMPARE(control->together, 1);
}

void TestHandlerFrames::oneRequestRunsAtATime()
{
    device->feed(request("block", "1") + request("echo", "2"));
    device->feed(request("echo", "3"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    deliverEvents();
    QCOMPARE(control->calls, 1);
    QCOMPARE(device->output(), QByteArray());
    control->go.release();
    const QByteArray expected =
        answerFrame(success("1", "null")) + answerFrame(success("2", "null")) + answerFrame(success("3", "null"));
    QTRY_COMPARE_WITH_TIMEOUT(device->output(), expected, kPatienceMs);
    QCOMPARE(control->together, 1);
}

void TestHandlerFrames::batchRunsInOrderOneByOne()
{
    device->feed(encodeNetString(R"([{"jsonrpc":"2.0","method":"block","id":2},)"
                                 R"({"jsonrpc":"2.0","method":"echo","id":1}])"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    QCOMPARE(control->calls, 1);
    control->go.release();
    const QByteArray expected = answerFrame('[' + success("2", "null") + ',' + success("1", "null") + ']');
    QTRY_COMPARE_WITH_TIMEOUT(device->output(), expected, kPatienceMs);
    QCOMPARE(control->together, 1);
    QCOMPARE(device->writes().size(), 1);
}

void TestHandlerFrames::busyHandlerReadsNothing()
{
    device->feed(request("block", "1"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    const QByteArray more = request("echo", "2") + "junk";
    device->feed(more);
    deliverEvents();
    QCOMPARE(device->unread(), more.size());
    QVERIFY(device->isOpen());
}

void TestHandlerFrames::bytesThatArrivedWhileBusyAreReadAfterTheAnswer()
{
    device->feed(request("block", "1"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    const QByteArray frame = request("echo", "2");
    device->feed(frame.first(5));
    device->feed(frame.sliced(5));
    control->go.release(); // nothing is fed from here on
    QTRY_COMPARE_WITH_TIMEOUT(device->output(),
                              QByteArray(answerFrame(success("1", "null")) + answerFrame(success("2", "null"))),
                              kPatienceMs);
}

void TestHandlerFrames::lengthIsCheckedAfterReadingAllThatHasArrived_data()
{
    QTest::addColumn<QByteArray>("begun"); // the start of a length, read together with the frame before
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("five bytes") << "00000"_ba;
    QTest::newRow("six bytes") << "000000"_ba; // too long for a length, unless the colon is there
    QTest::newRow("ten bytes") << "0000000000"_ba;
}

void TestHandlerFrames::lengthIsCheckedAfterReadingAllThatHasArrived()
{
    QFETCH(const QByteArray, begun);
    device->feed(request("block", "1") + begun);
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    device->feed(request("echo", "2")); // its colon arrives before the handler decodes again
    control->go.release();
    QTRY_COMPARE_WITH_TIMEOUT(device->output(),
                              QByteArray(answerFrame(success("1", "null")) + answerFrame(success("2", "null"))),
                              kPatienceMs);
    QVERIFY(device->isOpen());
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestHandlerFrames::pipeliningPeerIsReadOneBufferAtATime()
{
    constexpr int kFrames = 20;
    QByteArray taken;
    QByteArray waiting;
    for (int i = 0; i < kFrames; ++i) {
        taken += request("block", QByteArray::number(i));
        waiting += request("echo", QByteArray::number(kFrames + i));
    }
    device->feed(taken);
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    device->feed(waiting);
    // While the buffer holds a whole frame, no more is read.
    for (int i = 1; i < kFrames; ++i) {
        control->go.release();
        QTRY_COMPARE_WITH_TIMEOUT(control->calls, i + 1, kPatienceMs);
        QCOMPARE(device->unread(), waiting.size());
    }
    control->go.release();
    QByteArray expected;
    for (int i = 0; i < 2 * kFrames; ++i) {
        expected += answerFrame(success(QByteArray::number(i), "null"));
    }
    QTRY_COMPARE_WITH_TIMEOUT(device->output().size(), expected.size(), kPatienceMs);
    QCOMPARE(device->output(), expected);
    QCOMPARE(device->unread(), 0);
}

void TestHandlerFrames::framingErrorIsLoggedAndClosesTheDevice_data()
{
    QTest::addColumn<QByteArrayList>("pieces");
    QTest::addColumn<QString>("line");
    const QString badLength = u"Warning: Invalid NetString length"_s;
    const QString noComma = u"Warning: Missing NetString comma"_s;
    QTest::newRow("letters") << QByteArrayList{"abc:"} << badLength;
    QTest::newRow("colon alone") << QByteArrayList{":"} << badLength;
    QTest::newRow("six digits") << QByteArrayList{"123456"} << badLength;
    QTest::newRow("six digits in pieces") << QByteArrayList{"123", "45", "6"} << badLength;
    QTest::newRow("leading zeros in pieces") << QByteArrayList{"00001", "2"} << badLength;
    QTest::newRow("one byte too long") << QByteArrayList{"65537:"} << badLength;
    QTest::newRow("another protocol") << QByteArrayList{"GET / HTTP/1.1\r\n\r\n"} << badLength;
    QTest::newRow("another byte instead of the comma") << QByteArrayList{"3:abcX"} << noComma;
    QTest::newRow("another byte instead of the comma, alone") << QByteArrayList{"3:abc", "X"} << noComma;
    QTest::newRow("line feed after the payload") << QByteArrayList{"3:abc\n,"} << noComma;
}

void TestHandlerFrames::framingErrorIsLoggedAndClosesTheDevice()
{
    QFETCH(const QByteArrayList, pieces);
    QFETCH(const QString, line);
    for (const QByteArray &piece : pieces) {
        QVERIFY(device->isOpen());
        QCOMPARE(logger->takeLines(), QStringList());
        device->feed(piece);
    }
    QVERIFY(!device->isOpen());
    QCOMPARE(logger->takeLines(), QStringList{line});
    QCOMPARE(device->output(), QByteArray());
    deliverEvents();
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestHandlerFrames::framingErrorAfterARequestWaitsForTheAnswer()
{
    device->feed(request("block", "1") + "junk, junk");
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    QVERIFY(device->isOpen());
    control->go.release();
    QTRY_VERIFY_WITH_TIMEOUT(!device->isOpen(), kPatienceMs);
    QCOMPARE(device->output(), answerFrame(success("1", "null")));
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Invalid NetString length"_s});
}

ZARVO_TEST(TestHandlerFrames)

#include "tst_handlerframes.moc"
