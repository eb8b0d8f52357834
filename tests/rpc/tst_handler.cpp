// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "rpc/handler.h"
#include "rpc/netstring.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/rpc/fakedevice.h"
#include "tests/rpc/fakemethods.h"
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QThreadPool>

#include <memory>

using namespace Qt::StringLiterals;

class TestHandler : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void payloadIsAnsweredToTheByte_data();
    void payloadIsAnsweredToTheByte();
    void describeListsAllMethodsInOrder();
    void describeReplacesAMethodOfThatName();
    void methodsRunOnPoolThreads();
    void methodGetsItsParameters();
    void frameMayArriveInPieces_data();
    void frameMayArriveInPieces();
    void framesOfOneReadAreAnsweredInOrder();
    void oneRequestRunsAtATime();
    void batchRunsInOrderOneByOne();
    void busyHandlerReadsNothing();
    void bytesThatArrivedWhileBusyAreTakenUpAtOnce();
    void lengthIsJudgedWithAllThatHasArrived_data();
    void lengthIsJudgedWithAllThatHasArrived();
    void pipeliningPeerIsReadOneBufferAtATime();
    void framingErrorIsLoggedAndClosesTheDevice_data();
    void framingErrorIsLoggedAndClosesTheDevice();
    void framingErrorBehindARequestWaitsForTheAnswer();
    void badRequestsKeepTheConnection();

    void updateIsWrittenAsItIs();
    void updateNeverFallsInsideAnAnswer();
    void updateOnAClosedDeviceIsDropped();
    void answerForAClosedDeviceIsDropped();

    void laggingPeerIsNotReadFrom_data();
    void laggingPeerIsNotReadFrom();
    void laggingPeerGetsOnlyTheNewestUpdate();
    void peerThatLagsAgainStillGetsTheNewestUpdate();
    void updateThatWaitedIsNotSentBehindANewerOne();

    void handlerHoldsTheIdleTimer();
    void destructionDeletesTheMethods();
    void destructionWaitsForTheRunningRequest();
    void requestsOfOtherConnectionsRunAtTheSameTime();
    void retireDeletesTheDeviceLater();
    void retireWaitsForTheRunningRequestWithoutBlocking();

private:
    /** Has the handler answer all requests that came before, and this one. */
    void waitForEcho(const QByteArray &id);

    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<MethodControl> control;
    std::unique_ptr<FakeDevice> device;
    std::unique_ptr<Handler> handler;
};

namespace {

constexpr int kPatienceMs = 30000;
constexpr qsizetype kMaxUnsent = 1024 * 1024;

const QByteArray kParseError = R"({"error":{"code":-32700,"message":"Parse error."},"id":null,"jsonrpc":"2.0"})";
const QByteArray kInvalid =
    R"({"error":{"code":-32600,"message":"Invalid JSON-RPC request."},"id":null,"jsonrpc":"2.0"})";

QByteArray notFound(const QByteArray &id)
{
    return R"({"error":{"code":-32601,"message":"Method not found."},"id":)" + id + R"(,"jsonrpc":"2.0"})";
}

QByteArray success(const QByteArray &id, const QByteArray &result)
{
    return R"({"id":)" + id + R"(,"jsonrpc":"2.0","result":)" + result + '}';
}

QByteArray failure(const QByteArray &id)
{
    return R"({"error":{"code":-32042,"message":"It failed."},"id":)" + id + R"(,"jsonrpc":"2.0"})";
}

/** An answer as it goes over the wire. */
QByteArray answerFrame(const QByteArray &json)
{
    return encodeNetString(json + '\n');
}

QByteArray request(const QByteArray &method, const QByteArray &id, const QByteArray &params = "null")
{
    return encodeNetString(R"({"jsonrpc":"2.0","method":")" + method + R"(","params":)" + params + R"(,"id":)" + id +
                           '}');
}

/** Delivers queued calls and deferred deletions. */
void deliverEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

void TestHandler::initTestCase()
{
    // As in the server: with one processor the pool would run one request at a time.
    QThreadPool::globalInstance()->setMaxThreadCount(4);
}

void TestHandler::init()
{
    logger = std::make_unique<CollectingLogger>();
    control = std::make_unique<MethodControl>();
    device = std::make_unique<FakeDevice>();
    handler = std::make_unique<Handler>(device.get(), fakeMethods(control.get()), nullptr);
}

void TestHandler::cleanup()
{
    control->go.release(1000); // a failed test may have left a request behind
    handler.reset();
    device.reset();
    control.reset();
    logger.reset();
}

void TestHandler::waitForEcho(const QByteArray &id)
{
    device->feed(request("echo", id));
    const QByteArray answer = answerFrame(success(id, "null"));
    QVERIFY(QTest::qWaitFor([&] { return device->output().endsWith(answer); }, kPatienceMs));
}

void TestHandler::payloadIsAnsweredToTheByte_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("answer"); // null: none at all

    // What is no JSON.
    QTest::newRow("open object") << "{"_ba << kParseError;
    QTest::newRow("empty payload") << QByteArray("") << kParseError;
    QTest::newRow("blank payload") << " "_ba << kParseError;
    QTest::newRow("words") << "hello"_ba << kParseError;
    QTest::newRow("binary") << QByteArray("\0\xff", 2) << kParseError;
    QTest::newRow("as deep as possible") << QByteArray(65536, '[') << kParseError;
    QTest::newRow("open batch") << R"([{"jsonrpc":"2.0","method":"echo","id":1})"_ba << kParseError;
    QTest::newRow("half a request") << R"({"jsonrpc":"2.0","method":"echo","id":1)"_ba << kParseError;

    // What is no request.
    for (const char *payload : {"1", "\"echo\"", "true", "1.5", "{}"}) {
        QTest::addRow("%s", payload) << QByteArray(payload) << kInvalid;
    }
    QTest::newRow("id null") << R"({"jsonrpc":"2.0","method":"system.describe","id":null})"_ba << kInvalid;
    QTest::newRow("id object") << R"({"jsonrpc":"2.0","method":"echo","id":{}})"_ba << kInvalid;
    QTest::newRow("id array") << R"({"jsonrpc":"2.0","method":"echo","id":[1]})"_ba << kInvalid;
    QTest::newRow("no jsonrpc") << R"({"method":"echo","id":1})"_ba << kInvalid;
    QTest::newRow("no jsonrpc, no id") << R"({"method":"echo"})"_ba << kInvalid;
    QTest::newRow("jsonrpc number") << R"({"jsonrpc":2.0,"method":"echo","id":1})"_ba << kInvalid;
    QTest::newRow("jsonrpc null") << R"({"jsonrpc":null,"method":"echo","id":1})"_ba << kInvalid;
    QTest::newRow("jsonrpc 1.0") << R"({"jsonrpc":"1.0","method":"echo","id":1})"_ba << kInvalid;
    QTest::newRow("jsonrpc 2") << R"({"jsonrpc":"2","method":"echo","id":1})"_ba << kInvalid;
    QTest::newRow("jsonrpc 2.00") << R"({"jsonrpc":"2.00","method":"echo","id":1})"_ba << kInvalid;
    QTest::newRow("jsonrpc with NUL") << R"({"jsonrpc":"2.0\u0000","method":"echo","id":1})"_ba << kInvalid;
    QTest::newRow("no method") << R"({"jsonrpc":"2.0","id":1})"_ba << kInvalid;
    QTest::newRow("method number") << R"({"jsonrpc":"2.0","method":1,"id":1})"_ba << kInvalid;
    QTest::newRow("method null") << R"({"jsonrpc":"2.0","method":null,"id":1})"_ba << kInvalid;
    QTest::newRow("method array") << R"({"jsonrpc":"2.0","method":["echo"],"id":1})"_ba << kInvalid;
    QTest::newRow("method number, no id") << R"({"jsonrpc":"2.0","method":1})"_ba << kInvalid;
    QTest::newRow("members in other case") << R"({"JSONRPC":"2.0","Method":"echo","ID":1})"_ba << kInvalid;

    // What names no method.
    QTest::newRow("unknown method") << R"({"jsonrpc":"2.0","method":"nope","id":7})"_ba << notFound("7");
    QTest::newRow("unknown method, no id") << R"({"jsonrpc":"2.0","method":"nope"})"_ba << QByteArray();
    QTest::newRow("other case") << R"({"jsonrpc":"2.0","method":"Echo","id":1})"_ba << notFound("1");
    QTest::newRow("empty name") << R"({"jsonrpc":"2.0","method":"","id":1})"_ba << notFound("1");
    QTest::newRow("name with NUL") << R"({"jsonrpc":"2.0","method":"echo\u0000","id":1})"_ba << notFound("1");
    QTest::newRow("name with a blank") << R"({"jsonrpc":"2.0","method":"echo ","id":1})"_ba << notFound("1");
    QTest::newRow("half a name") << R"({"jsonrpc":"2.0","method":"ech","id":1})"_ba << notFound("1");

    // Ids come back as they were.
    for (const char *id : {"0", "-1", "9223372036854775807", "18446744073709551615", "1.5", "true", "false", "\"\"",
                           "\"abc\"", "\"a\\\"b\\n\"", "\"\xc3\xa4\"", "\"a\\u0000b\""}) {
        QTest::addRow("id %s", id) << QByteArray(R"({"jsonrpc":"2.0","method":"echo","id":)" + QByteArray(id) + '}')
                                   << success(id, "null");
    }

    // Parameters of every type, and none.
    for (const char *params : {"null", "true", "1", "\"a\"", "[]", "[1,[2]]", "{}", "{\"a\":{\"b\":null}}"}) {
        QTest::addRow("params %s", params)
            << QByteArray(R"({"jsonrpc":"2.0","method":"echo","id":1,"params":)" + QByteArray(params) + '}')
            << success("1", params);
    }
    QTest::newRow("members of the answer ascend")
        << R"({"params":{"b":1,"a":2},"method":"echo","jsonrpc":"2.0","id":1})"_ba << success("1", R"({"a":2,"b":1})");
    QTest::newRow("result untouched") << R"({"jsonrpc":"2.0","method":"silent","id":1})"_ba << success("1", "null");
    QTest::newRow("name with an escape") << R"({"jsonrpc":"2.0","method":"\u0065cho","id":1})"_ba
                                         << success("1", "null");
    QTest::newRow("other members are ignored")
        << R"({"jsonrpc":"2.0","method":"echo","id":1,"more":[]})"_ba << success("1", "null");
    QTest::newRow("comments") << "/* a */ {\"jsonrpc\":\"2.0\", // b\n\"method\":\"echo\",\"id\":1}"_ba
                              << success("1", "null");
    QTest::newRow("something behind") << R"({"jsonrpc":"2.0","method":"echo","id":1} {"jsonrpc")"_ba
                                      << success("1", "null");

    // Failure and notifications.
    QTest::newRow("failing method") << R"({"jsonrpc":"2.0","method":"fail","id":"x"})"_ba << failure("\"x\"");
    QTest::newRow("notification") << R"({"jsonrpc":"2.0","method":"echo","params":[1]})"_ba << QByteArray();
    QTest::newRow("failing notification") << R"({"jsonrpc":"2.0","method":"fail"})"_ba << QByteArray();

    // Batches.
    QTest::newRow("empty batch") << "[]"_ba << QByteArray();
    QTest::newRow("null is an empty batch") << "null"_ba << QByteArray();
    QTest::newRow("batch of a number") << "[1]"_ba << QByteArray('[' + kInvalid + ']');
    QTest::newRow("batch of null") << "[null]"_ba << QByteArray('[' + kInvalid + ']');
    QTest::newRow("batch of batches") << "[[],[1]]"_ba << QByteArray('[' + kInvalid + ',' + kInvalid + ']');
    QTest::newRow("batch of one") << R"([{"jsonrpc":"2.0","method":"echo","id":1}])"_ba
                                  << QByteArray('[' + success("1", "null") + ']');
    QTest::newRow("batch of notifications")
        << R"([{"jsonrpc":"2.0","method":"echo"},{"jsonrpc":"2.0","method":"nope"}])"_ba << QByteArray();
    QTest::newRow("batch of everything")
        << R"([{"jsonrpc":"2.0","method":"echo","id":3,"params":[1]},5,{"jsonrpc":"2.0","method":"echo"},)"
           R"({"jsonrpc":"2.0","method":"nope","id":2},{"jsonrpc":"2.0","method":"fail","id":1}])"_ba
        << QByteArray('[' + success("3", "[1]") + ',' + kInvalid + ',' + notFound("2") + ',' + failure("1") + ']');
}

void TestHandler::payloadIsAnsweredToTheByte()
{
    QFETCH(const QByteArray, payload);
    QFETCH(const QByteArray, answer);
    const QByteArray expected = answer.isNull() ? QByteArray() : answerFrame(answer);
    QCOMPARE(handler->processMessage(payload), expected);

    device->feed(encodeNetString(payload));
    waitForEcho("\"last\""); // so that an answer too many would be seen
    QCOMPARE(device->output(), QByteArray(expected + answerFrame(success("\"last\"", "null"))));
    QVERIFY(device->isOpen());
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestHandler::describeListsAllMethodsInOrder()
{
    const QByteArray fake = R"({"description":"For tests","parameters":"any","returns":null})";
    const QByteArray own = R"({"description":"List the RPC methods available","parameters":null,)"
                           R"("returns":"Object that contains description of all methods registered"})";
    const QByteArray list = R"({"block":)" + fake + R"(,"echo":)" + fake + R"(,"fail":)" + fake + R"(,"silent":)" +
                            fake + R"(,"system.describe":)" + own + '}';
    device->feed(request("system.describe", "1"));
    device->feed(request("system.describe", "2", R"({"ignored":true})"));
    waitForEcho("3");
    QCOMPARE(device->output(), QByteArray(answerFrame(success("1", list)) + answerFrame(success("2", list)) +
                                          answerFrame(success("3", "null"))));
}

void TestHandler::describeReplacesAMethodOfThatName()
{
    FakeDevice other;
    const Handler alone(&other, {{u"system.describe"_s, new EchoMethod(control.get())}}, nullptr);
    other.feed(request("system.describe", "1", "[1]"));
    QTRY_VERIFY_WITH_TIMEOUT(!other.output().isEmpty(), kPatienceMs);
    const QByteArray beginning = R"("result":{"system.describe":{"description":"List the RPC)";
    QVERIFY(other.output().contains(beginning));
    QCOMPARE(control->calls, 0);
}

void TestHandler::methodsRunOnPoolThreads()
{
    waitForEcho("1");
    device->feed(request("fail", "2"));
    device->feed(encodeNetString(R"([{"jsonrpc":"2.0","method":"echo"}])"));
    waitForEcho("3");
    QCOMPARE(control->calls, 4);
    QVERIFY(!control->onMainThread);
}

void TestHandler::methodGetsItsParameters()
{
    const QByteArray large = "[\"" + QByteArray(65000, 'x') + "\"]";
    device->feed(request("echo", "1", large));
    const QByteArray expected = answerFrame(success("1", large));
    QTRY_COMPARE_WITH_TIMEOUT(device->output().size(), expected.size(), kPatienceMs);
    QVERIFY(device->output() == expected);
}

void TestHandler::frameMayArriveInPieces_data()
{
    QTest::addColumn<qsizetype>("split"); // -1: every byte by itself
    QTest::newRow("byte by byte") << qsizetype(-1);
    for (qsizetype split = 1; split < request("echo", "1").size(); ++split) {
        QTest::addRow("after %lld bytes", static_cast<long long>(split)) << split;
    }
}

void TestHandler::frameMayArriveInPieces()
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

void TestHandler::framesOfOneReadAreAnsweredInOrder()
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

void TestHandler::oneRequestRunsAtATime()
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

void TestHandler::batchRunsInOrderOneByOne()
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

void TestHandler::busyHandlerReadsNothing()
{
    device->feed(request("block", "1"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    const QByteArray more = request("echo", "2") + "junk";
    device->feed(more);
    deliverEvents();
    QCOMPARE(device->unread(), more.size());
    QVERIFY(device->isOpen());
}

void TestHandler::bytesThatArrivedWhileBusyAreTakenUpAtOnce()
{
    device->feed(request("block", "1"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    const QByteArray frame = request("echo", "2");
    device->feed(frame.first(5));
    device->feed(frame.sliced(5));
    control->go.release(); // nothing is fed any more
    QTRY_COMPARE_WITH_TIMEOUT(device->output(),
                              QByteArray(answerFrame(success("1", "null")) + answerFrame(success("2", "null"))),
                              kPatienceMs);
}

void TestHandler::lengthIsJudgedWithAllThatHasArrived_data()
{
    QTest::addColumn<QByteArray>("begun"); // of a length, read together with the frame before it
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("five bytes") << "00000"_ba;
    QTest::newRow("six bytes") << "000000"_ba; // without a colon, that is too long for a length
    QTest::newRow("ten bytes") << "0000000000"_ba;
}

void TestHandler::lengthIsJudgedWithAllThatHasArrived()
{
    QFETCH(const QByteArray, begun);
    device->feed(request("block", "1") + begun);
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    device->feed(request("echo", "2")); // its colon is there before the handler looks again
    control->go.release();
    QTRY_COMPARE_WITH_TIMEOUT(device->output(),
                              QByteArray(answerFrame(success("1", "null")) + answerFrame(success("2", "null"))),
                              kPatienceMs);
    QVERIFY(device->isOpen());
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestHandler::pipeliningPeerIsReadOneBufferAtATime()
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
    // As long as there is a whole frame in what was read, no more is read.
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

void TestHandler::framingErrorIsLoggedAndClosesTheDevice_data()
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
    QTest::newRow("other byte for the comma") << QByteArrayList{"3:abcX"} << noComma;
    QTest::newRow("other byte for the comma, by itself") << QByteArrayList{"3:abc", "X"} << noComma;
    QTest::newRow("line feed behind the payload") << QByteArrayList{"3:abc\n,"} << noComma;
}

void TestHandler::framingErrorIsLoggedAndClosesTheDevice()
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

void TestHandler::framingErrorBehindARequestWaitsForTheAnswer()
{
    device->feed(request("block", "1") + "junk, junk");
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    QVERIFY(device->isOpen());
    control->go.release();
    QTRY_VERIFY_WITH_TIMEOUT(!device->isOpen(), kPatienceMs);
    QCOMPARE(device->output(), answerFrame(success("1", "null")));
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Invalid NetString length"_s});
}

void TestHandler::badRequestsKeepTheConnection()
{
    QByteArray expected;
    for (int i = 0; i < 10; ++i) {
        device->feed(encodeNetString("{") + encodeNetString("1") + encodeNetString("[]") + request("nope", "1"));
        expected += answerFrame(kParseError) + answerFrame(kInvalid) + answerFrame(notFound("1"));
    }
    waitForEcho("2");
    QCOMPARE(device->output(), QByteArray(expected + answerFrame(success("2", "null"))));
    QVERIFY(device->isOpen());
}

void TestHandler::updateIsWrittenAsItIs()
{
    handler->writeToDevice("any bytes\0 at all"_ba);
    QCOMPARE(device->output(), "any bytes\0 at all"_ba);
}

void TestHandler::updateNeverFallsInsideAnAnswer()
{
    const QByteArray update = encodeNetString("update");
    device->feed(request("block", "1") + request("block", "2"));
    QTRY_COMPARE_WITH_TIMEOUT(control->calls, 1, kPatienceMs);
    handler->writeToDevice(update);
    QCOMPARE(device->writes(), QByteArrayList{update}); // at once, also while a request runs
    control->go.release();
    QTRY_COMPARE_WITH_TIMEOUT(control->calls, 2, kPatienceMs);
    handler->writeToDevice(update);
    control->go.release();
    QTRY_COMPARE_WITH_TIMEOUT(device->writes().size(), 4, kPatienceMs);
    QCOMPARE(device->writes(),
             (QByteArrayList{update, answerFrame(success("1", "null")), update, answerFrame(success("2", "null"))}));
}

void TestHandler::updateOnAClosedDeviceIsDropped()
{
    device->close();
    handler->writeToDevice("update"_ba);
    device->open(QIODevice::ReadWrite | QIODevice::Unbuffered);
    deliverEvents();
    QCOMPARE(device->output(), QByteArray());
}

void TestHandler::answerForAClosedDeviceIsDropped()
{
    device->feed(request("block", "1"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    device->close();
    QTest::failOnWarning(QRegularExpression(u".*"_s)); // Qt complains about a write to a closed device
    control->go.release();
    QTRY_COMPARE_WITH_TIMEOUT(control->finished, 1, kPatienceMs);
    QThreadPool::globalInstance()->waitForDone();
    deliverEvents();
    QCOMPARE(device->output(), QByteArray());
}

void TestHandler::laggingPeerIsNotReadFrom_data()
{
    QTest::addColumn<qsizetype>("unsent");
    QTest::addColumn<bool>("lags");
    QTest::newRow("nothing unsent") << qsizetype(0) << false;
    QTest::newRow("one byte below the limit") << kMaxUnsent - 1 << false;
    QTest::newRow("the limit") << kMaxUnsent << false;
    QTest::newRow("one byte over the limit") << kMaxUnsent + 1 << true;
    QTest::newRow("far over the limit") << 3 * kMaxUnsent << true;
}

void TestHandler::laggingPeerIsNotReadFrom()
{
    QFETCH(const qsizetype, unsent);
    QFETCH(const bool, lags);
    device->stall();
    handler->writeToDevice(QByteArray(unsent, 'x'));
    QCOMPARE(device->bytesToWrite(), unsent);
    const QByteArray frame = request("echo", "1");
    device->feed(frame);
    QCOMPARE(device->unread(), lags ? frame.size() : 0);
    if (lags) {
        deliverEvents();
        QCOMPARE(control->calls, 0);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(control->calls, 1, kPatienceMs);
    }
    device->resume();
    QTRY_VERIFY_WITH_TIMEOUT(device->output().endsWith(answerFrame(success("1", "null"))), kPatienceMs);
}

void TestHandler::laggingPeerGetsOnlyTheNewestUpdate()
{
    device->stall();
    const QByteArray large(kMaxUnsent + 1, 'x');
    handler->writeToDevice(large);
    for (int i = 0; i < 100; ++i) {
        handler->writeToDevice("update " + QByteArray::number(i));
    }
    QCOMPARE(device->unsent().size(), 1);
    device->resume();
    QTRY_COMPARE_WITH_TIMEOUT(device->writes().size(), 2, kPatienceMs);
    QVERIFY(device->writes().at(0) == large);
    QCOMPARE(device->writes().at(1), "update 99"_ba);

    handler->writeToDevice("update 100"_ba); // from now on at once again
    QCOMPARE(device->writes().size(), 3);
    QCOMPARE(device->writes().last(), "update 100"_ba);
    deliverEvents();
    QCOMPARE(device->writes().size(), 3);
}

void TestHandler::peerThatLagsAgainStillGetsTheNewestUpdate()
{
    const QByteArray large(kMaxUnsent + 1, 'x');
    device->stall();
    handler->writeToDevice(large);
    handler->writeToDevice("old"_ba);
    device->drainOnce();
    QTRY_COMPARE_WITH_TIMEOUT(device->unsent(), QByteArrayList{"old"_ba}, kPatienceMs);
    handler->writeToDevice(large);
    handler->writeToDevice("older"_ba);
    handler->writeToDevice("newest"_ba);
    device->resume();
    QTRY_COMPARE_WITH_TIMEOUT(device->writes().size(), 4, kPatienceMs);
    QCOMPARE(device->writes().last(), "newest"_ba);
}

void TestHandler::updateThatWaitedIsNotSentBehindANewerOne()
{
    device->stall();
    handler->writeToDevice(QByteArray(kMaxUnsent + 1, 'x'));
    handler->writeToDevice("old"_ba);
    device->resume();
    handler->writeToDevice("new"_ba); // before the handler has looked at what waits
    deliverEvents();
    QCOMPARE(device->writes().last(), "new"_ba);
}

void TestHandler::handlerHoldsTheIdleTimer()
{
    QCOMPARE(TEST_heldConnections(), 1);
    FakeDevice otherDevice;
    auto other = std::make_unique<Handler>(&otherDevice, QMap<QString, RpcMethod *>(), nullptr);
    QCOMPARE(TEST_heldConnections(), 2);
    otherDevice.close();
    QCOMPARE(TEST_heldConnections(), 2);
    other.reset();
    QCOMPARE(TEST_heldConnections(), 1);
    handler.reset();
    QCOMPARE(TEST_heldConnections(), 0);
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestHandler::destructionDeletesTheMethods()
{
    waitForEcho("1");
    QCOMPARE(control->deleted, 0);
    handler.reset();
    QCOMPARE(control->deleted, kFakeMethods);
}

void TestHandler::destructionWaitsForTheRunningRequest()
{
    device->feed(request("block", "1"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    const std::unique_ptr<QThread> releaser(QThread::create([this] {
        QThread::msleep(100); // gives a destructor that does not wait the time to do wrong; a right one needs none
        control->go.release();
    }));
    releaser->start();
    handler.reset();
    QCOMPARE(control->finished, 1);
    QCOMPARE(control->deleted, kFakeMethods);
    QCOMPARE(control->deletedWhileRunning, 0);
    QCOMPARE(TEST_heldConnections(), 0);
    QVERIFY(releaser->wait(kPatienceMs));
    deliverEvents();
    QCOMPARE(device->output(), QByteArray());
}

void TestHandler::requestsOfOtherConnectionsRunAtTheSameTime()
{
    FakeDevice otherDevice;
    const Handler other(&otherDevice, fakeMethods(control.get()), nullptr);
    device->feed(request("block", "1"));
    otherDevice.feed(request("block", "2"));
    QTRY_COMPARE_WITH_TIMEOUT(control->together, 2, kPatienceMs);
    control->go.release(2);
    QTRY_COMPARE_WITH_TIMEOUT(device->output(), answerFrame(success("1", "null")), kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(otherDevice.output(), answerFrame(success("2", "null")), kPatienceMs);
}

void TestHandler::retireDeletesTheDeviceLater()
{
    QPointer<FakeDevice> owner = device.release();
    QPointer<Handler> child = handler.release();
    child->setParent(owner);
    child->retire();
    QVERIFY(owner); // it may be in the middle of its own signal
    owner->feed(request("echo", "1"));
    QCOMPARE(control->calls, 0);
    deliverEvents();
    QVERIFY(!owner);
    QVERIFY(!child);
    QCOMPARE(control->deleted, kFakeMethods);
    QCOMPARE(TEST_heldConnections(), 0);
}

void TestHandler::retireWaitsForTheRunningRequestWithoutBlocking()
{
    QPointer<FakeDevice> owner = device.release();
    QPointer<Handler> child = handler.release();
    child->setParent(owner);
    owner->feed(request("block", "1") + request("echo", "2"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    child->retire(); // would never return if it waited
    child->retire(); // twice is once
    deliverEvents();
    QVERIFY(owner);
    QVERIFY(child);
    QCOMPARE(TEST_heldConnections(), 1);
    const auto history = owner->history();
    control->go.release();
    QSignalSpy destroyed(child, &QObject::destroyed);
    QVERIFY(destroyed.wait(kPatienceMs));
    QTRY_VERIFY_WITH_TIMEOUT(!owner, kPatienceMs);
    QCOMPARE(*history, QByteArrayList()); // and the answer goes nowhere
    QCOMPARE(control->calls, 1);
    QCOMPARE(control->deleted, kFakeMethods);
    QCOMPARE(control->deletedWhileRunning, 0);
    QCOMPARE(TEST_heldConnections(), 0);
}

ZARVO_TEST(TestHandler)

#include "tst_handler.moc"
