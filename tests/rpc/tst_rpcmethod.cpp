// SPDX-License-Identifier: MIT
#include "rpc/rpcmethod.h"
#include "support/json.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestRpcMethod : public QObject
{
    Q_OBJECT

private slots:
    void errorHasCodeAndMessage_data();
    void errorHasCodeAndMessage();
};

void TestRpcMethod::errorHasCodeAndMessage_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QByteArray>("written");
    QTest::newRow("parse error") << -32700 << "Parse error."_ba
                                 << "{\"code\":-32700,\"message\":\"Parse error.\"}\n"_ba;
    QTest::newRow("no message") << 0 << QByteArray("") << "{\"code\":0,\"message\":\"\"}\n"_ba;
    QTest::newRow("quotes and UTF-8") << 1 << QByteArray("\"\xc3\xa4\"")
                                      << QByteArray("{\"code\":1,\"message\":\"\\\"\xc3\xa4\\\"\"}\n");
}

void TestRpcMethod::errorHasCodeAndMessage()
{
    QFETCH(const int, code);
    QFETCH(const QByteArray, message);
    const Json::Value error = rpcError(code, message.constData());
    QVERIFY(error["code"].isInt());
    QVERIFY(error["message"].isString());
    QTEST(writeJson(error), "written");
}

ZARVO_TEST(TestRpcMethod)

#include "tst_rpcmethod.moc"
