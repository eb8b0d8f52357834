// SPDX-License-Identifier: MIT
#include "rpc/rpcmessage.h"
#include "support/json.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestRpcMessage : public QObject
{
    Q_OBJECT

private slots:
    void requestHasNoParameters();
    void versionIsAnExactString_data();
    void versionIsAnExactString();
    void methodTellsASessionsUpdate_data();
    void methodTellsASessionsUpdate();
    void validPartsOfAnErrorAreRead_data();
    void validPartsOfAnErrorAreRead();
    void answerWithoutAnErrorHasNone_data();
    void answerWithoutAnErrorHasNone();
};

namespace {

Json::Value parsed(const QByteArray &text)
{
    Json::Value value;
    if (!parseJson(text, &value)) {
        qFatal("A test's text is no JSON");
    }
    return value;
}

} // namespace

void TestRpcMessage::requestHasNoParameters()
{
    QCOMPARE(writeJson(rpcRequest(7, u"ä.b"_s)), "{\"id\":7,\"jsonrpc\":\"2.0\",\"method\":\"ä.b\"}\n"_ba);
    QCOMPARE(writeJson(rpcRequest("x", u""_s)), "{\"id\":\"x\",\"jsonrpc\":\"2.0\",\"method\":\"\"}\n"_ba);
}

void TestRpcMessage::versionIsAnExactString_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("is");
    QTest::newRow("exact") << R"({"jsonrpc":"2.0"})"_ba << true;
    QTest::newRow("number") << R"({"jsonrpc":2.0})"_ba << false;
    QTest::newRow("other") << R"({"jsonrpc":"2.1"})"_ba << false;
    QTest::newRow("longer") << R"({"jsonrpc":"2.0\u0000"})"_ba << false;
    QTest::newRow("null") << R"({"jsonrpc":null})"_ba << false;
    QTest::newRow("missing") << "{}"_ba << false;
    QTest::newRow("array") << R"(["jsonrpc","2.0"])"_ba << false;
}

void TestRpcMessage::versionIsAnExactString()
{
    QFETCH(const QByteArray, text);
    QTEST(isRpcMessage(parsed(text)), "is");
}

void TestRpcMessage::methodTellsASessionsUpdate_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("is");
    QTest::newRow("update") << R"({"method":"UpdateSessions","params":[]})"_ba << true;
    QTest::newRow("other method") << R"({"method":"updateSessions"})"_ba << false;
    QTest::newRow("answer") << R"({"id":1,"result":"UpdateSessions"})"_ba << false;
    QTest::newRow("null") << "null"_ba << false;
}

void TestRpcMessage::methodTellsASessionsUpdate()
{
    QFETCH(const QByteArray, text);
    QTEST(isSessionsUpdate(parsed(text)), "is");
}

void TestRpcMessage::validPartsOfAnErrorAreRead_data()
{
    QTest::addColumn<QByteArray>("error");
    QTest::addColumn<std::optional<int>>("code");
    QTest::addColumn<bool>("hasIntegerCode");
    QTest::addColumn<std::optional<QString>>("message");
    using Code = std::optional<int>;
    using Message = std::optional<QString>;
    QTest::newRow("whole") << R"({"code":-32094,"message":"a"})"_ba << Code(-32094) << true << Message(u"a"_s);
    QTest::newRow("empty message") << R"({"code":0,"message":""})"_ba << Code(0) << true << Message(u""_s);
    QTest::newRow("no message") << R"({"code":5})"_ba << Code(5) << true << Message();
    QTest::newRow("message is a number") << R"({"code":5,"message":5})"_ba << Code(5) << true << Message();
    QTest::newRow("no code") << R"({"message":"a"})"_ba << Code() << false << Message(u"a"_s);
    QTest::newRow("code is text") << R"({"code":"5"})"_ba << Code() << false << Message();
    QTest::newRow("code is true") << R"({"code":true})"_ba << Code() << false << Message();
    QTest::newRow("fraction") << R"({"code":1.5})"_ba << Code() << false << Message();
    QTest::newRow("fraction of zero") << R"({"code":5.0})"_ba << Code(5) << false << Message();
    QTest::newRow("smallest int") << R"({"code":-2147483648})"_ba << Code(-2147483647 - 1) << true << Message();
    QTest::newRow("one less") << R"({"code":-2147483649})"_ba << Code() << true << Message();
    QTest::newRow("largest int") << R"({"code":2147483647})"_ba << Code(2147483647) << true << Message();
    QTest::newRow("one more") << R"({"code":2147483648})"_ba << Code() << true << Message();
    for (const char *other : {"null", "[]", "{}", "\"code\"", "5"}) {
        QTest::newRow(other) << QByteArray(other) << Code() << false << Message();
    }
}

void TestRpcMessage::validPartsOfAnErrorAreRead()
{
    QFETCH(const QByteArray, error);
    const std::optional<RpcAnswerError> read = errorOfAnswer(parsed(R"({"id":1,"error":)" + error + "}"));
    QVERIFY(read.has_value());
    QTEST(read->code, "code");
    QTEST(read->hasIntegerCode, "hasIntegerCode");
    QTEST(read->message, "message");
}

void TestRpcMessage::answerWithoutAnErrorHasNone_data()
{
    QTest::addColumn<QByteArray>("text");
    for (const char *text : {"{}", R"({"result":1})", R"({"result":{"error":{"code":1}}})", R"(["error"])", "null"}) {
        QTest::newRow(text) << QByteArray(text);
    }
}

void TestRpcMessage::answerWithoutAnErrorHasNone()
{
    QFETCH(const QByteArray, text);
    QVERIFY(!errorOfAnswer(parsed(text)).has_value());
}

ZARVO_TEST(TestRpcMessage)

#include "tst_rpcmessage.moc"
