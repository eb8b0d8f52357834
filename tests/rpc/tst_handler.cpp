// SPDX-License-Identifier: MIT
#include "rpc/netstring.h"
#include "tests/rpc/handlertest.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestHandler : public HandlerTest
{
    Q_OBJECT

private slots:
    void payloadIsAnsweredToTheByte_data();
    void payloadIsAnsweredToTheByte();
    void describeListsAllMethodsInOrder();
    void describeReplacesAMethodOfThatName();
    void methodsRunOnPoolThreads();
    void methodGetsItsParameters();
    void badRequestsKeepTheConnection();
};

void TestHandler::payloadIsAnsweredToTheByte_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("answer"); // null: no answer

    // Not JSON.
    QTest::newRow("open object") << "{"_ba << kParseError;
    QTest::newRow("empty payload") << QByteArray("") << kParseError;
    QTest::newRow("blank payload") << " "_ba << kParseError;
    QTest::newRow("words") << "hello"_ba << kParseError;
    QTest::newRow("binary") << QByteArray("\0\xff", 2) << kParseError;
    QTest::newRow("as deep as possible") << QByteArray(65536, '[') << kParseError;
    QTest::newRow("open batch") << R"([{"jsonrpc":"2.0","method":"echo","id":1})"_ba << kParseError;
    QTest::newRow("trailing comma") << R"({"jsonrpc":"2.0","method":"echo","id":1,})"_ba << kParseError;
    QTest::newRow("trailing comma behind an empty name")
        << R"({"jsonrpc":"2.0","method":"echo","id":1,"":2,})"_ba << kParseError;
    QTest::newRow("trailing comma in the parameters")
        << R"({"jsonrpc":"2.0","method":"echo","params":[1,],"id":1})"_ba << kParseError;
    QTest::newRow("trailing comma of a batch") << R"([{"jsonrpc":"2.0","method":"echo","id":1},])"_ba << kParseError;
    QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf"
                                                   R"({"jsonrpc":"2.0","method":"echo","id":1})")
                                     << kParseError;
    QTest::newRow("half a request") << R"({"jsonrpc":"2.0","method":"echo","id":1)"_ba << kParseError;

    // JSON, but not a request.
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

    // Requests for unknown methods.
    QTest::newRow("unknown method") << R"({"jsonrpc":"2.0","method":"nope","id":7})"_ba << notFound("7");
    QTest::newRow("unknown method, no id") << R"({"jsonrpc":"2.0","method":"nope"})"_ba << QByteArray();
    QTest::newRow("other case") << R"({"jsonrpc":"2.0","method":"Echo","id":1})"_ba << notFound("1");
    QTest::newRow("empty name") << R"({"jsonrpc":"2.0","method":"","id":1})"_ba << notFound("1");
    QTest::newRow("name with NUL") << R"({"jsonrpc":"2.0","method":"echo\u0000","id":1})"_ba << notFound("1");
    QTest::newRow("name with a blank") << R"({"jsonrpc":"2.0","method":"echo ","id":1})"_ba << notFound("1");
    QTest::newRow("half a name") << R"({"jsonrpc":"2.0","method":"ech","id":1})"_ba << notFound("1");

    // Ids come back unchanged.
    for (const char *id : {"0", "-1", "9223372036854775807", "18446744073709551615", "1.5", "true", "false", "\"\"",
                           "\"abc\"", "\"a\\\"b\\n\"", "\"\xc3\xa4\"", "\"a\\u0000b\""}) {
        QTest::addRow("id %s", id) << QByteArray(R"({"jsonrpc":"2.0","method":"echo","id":)" + QByteArray(id) + '}')
                                   << success(id, "null");
    }

    // Parameters of every type.
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
    QTest::newRow("something after it") << R"({"jsonrpc":"2.0","method":"echo","id":1} {"jsonrpc")"_ba
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
    waitForEcho("\"last\""); // would come after a second answer
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

ZARVO_TEST(TestHandler)

#include "tst_handler.moc"
