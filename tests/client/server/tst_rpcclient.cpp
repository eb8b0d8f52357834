// SPDX-License-Identifier: MIT
#include "client/server/rpcclient.h"
#include "support/json.h"
#include "tests/client/fakeserver.h"
#include "tests/testmain.h"

#include <QHostAddress>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class TestRpcClient : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(makeTestIdentity(dir, u"own"_s, QString(), &own));
        QVERIFY(makeTestIdentity(dir, u"foreign"_s, QString(), &foreign));
        QVERIFY(makeTestIdentity(dir, u"renewed"_s, u"own"_s, &renewed));
    }

    void serverWithTheSameCertificateIsTrusted()
    {
        FakeServer server(own, echo);
        RpcClient client;
        QVERIFY(!client.isConnected());
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        QVERIFY(client.isConnected());
        Json::Value result;
        Failure failure;
        QVERIFY(client.call(u"a.method"_s, Json::Value(Json::arrayValue), &result, &failure));
        QCOMPARE(stringFromJson(result), u"a.method"_s);
    }

    void otherCertificatesAreRefusedBeforeARequest_data()
    {
        QTest::addColumn<bool>("sameKey");
        QTest::newRow("another key") << false;
        QTest::newRow("another certificate of the same key and name") << true;
    }
    void otherCertificatesAreRefusedBeforeARequest()
    {
        QFETCH(bool, sameKey);
        FakeServer server(sameKey ? renewed : foreign, echo);
        RpcClient client;
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Distrust);
        QVERIFY2(error.contains("not our own"_L1), qPrintable(error));
        QVERIFY(!client.isConnected());
        QTRY_VERIFY(server.clients().isEmpty());
        QCOMPARE(server.requests(), 0);
    }

    void portWithoutAListenerIsRefused()
    {
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress(QHostAddress::LocalHost)));
        const quint16 port = listener.serverPort();
        listener.close();
        RpcClient client;
        QCOMPARE(connectTo(&client, port), RpcClient::Outcome::Refused);
        QVERIFY2(error.contains(QString::number(port)), qPrintable(error));
    }

    void silentListenerTimesOut()
    {
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress(QHostAddress::LocalHost)));
        RpcClient client;
        QCOMPARE(client.connectTo(listener.serverPort(), {own.certificate, own.key}, 100ms, &error),
                 RpcClient::Outcome::TimedOut);
        QVERIFY(!client.isConnected());
    }

    void listenerWithoutTlsIsDistrusted()
    {
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress(QHostAddress::LocalHost)));
        connect(&listener, &QTcpServer::newConnection, &listener,
                [&listener] { listener.nextPendingConnection()->write("220 hello\r\n"); });
        RpcClient client;
        QCOMPARE(connectTo(&client, listener.serverPort()), RpcClient::Outcome::Distrust);
    }

    void listenerThatClosesCountsAsRefused()
    {
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress(QHostAddress::LocalHost)));
        connect(&listener, &QTcpServer::newConnection, &listener,
                [&listener] { listener.nextPendingConnection()->disconnectFromHost(); });
        RpcClient client;
        QCOMPARE(connectTo(&client, listener.serverPort()), RpcClient::Outcome::Refused);
        QVERIFY2(error.contains("closed the connection"_L1), qPrintable(error));
    }

    void clientCanReconnect()
    {
        FakeServer server(own, echo);
        RpcClient client;
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
            QTRY_COMPARE(server.clients().size(), 1); // the server's side ends its handshake last
            server.clients().first()->disconnectFromHost();
            QTRY_VERIFY(!client.isConnected());
        }
    }

    void requestHasAllMembers()
    {
        Json::Value seen;
        FakeServer server(own, [&seen](QSslSocket *peer, const Json::Value &request) {
            seen = request;
            FakeServer::answer(peer, request, true);
        });
        RpcClient client;
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        Json::Value params(Json::arrayValue);
        params.append("x");
        Json::Value result;
        Failure failure;
        QVERIFY(client.call(u"with"_s, params, &result, &failure));
        QCOMPARE(writeJson(seen), "{\"id\":1,\"jsonrpc\":\"2.0\",\"method\":\"with\",\"params\":[\"x\"]}\n"_ba);
        QVERIFY(client.call(u"without"_s, {}, &result, &failure));
        QCOMPARE(writeJson(seen), "{\"id\":2,\"jsonrpc\":\"2.0\",\"method\":\"without\"}\n"_ba);
    }

    void answersMayComeInAnyOrder()
    {
        QList<Json::Value> waiting;
        FakeServer server(own, [&waiting](QSslSocket *peer, const Json::Value &request) {
            waiting.prepend(request);
            if (waiting.size() == 3) {
                for (const Json::Value &each : std::as_const(waiting)) {
                    FakeServer::answer(peer, each, member(each, "method"));
                }
            }
        });
        RpcClient client;
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        const QList<int> ids = {client.send(u"one"_s), client.send(u"two"_s), client.send(u"three"_s)};
        QStringList results;
        for (const int id : ids) {
            Json::Value result;
            Failure failure;
            QVERIFY(client.receive(id, &result, &failure));
            results.append(stringFromJson(result));
        }
        QCOMPARE(results, (QStringList{u"one"_s, u"two"_s, u"three"_s}));
    }

    void answersWithoutARequestAreDropped()
    {
        FakeServer server(own, [](QSslSocket *peer, const Json::Value &request) {
            for (const Json::Value &id : {Json::Value(77), Json::Value("1"), Json::Value()}) {
                Json::Value other(Json::objectValue);
                other["id"] = id;
                FakeServer::answer(peer, other, "wrong");
            }
            FakeServer::answer(peer, request, "right");
        });
        RpcClient client;
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        Json::Value result;
        Failure failure;
        QVERIFY(client.call(u"m"_s, {}, &result, &failure));
        QCOMPARE(stringFromJson(result), u"right"_s);
    }

    void serverErrorsBecomeExitCodes_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<ExitCode>("code");
        QTest::addColumn<int>("number");
        QTest::addColumn<QString>("text");
        const QString known = u"What happened."_s;
        const auto row = [&known](const char *name, int number, ExitCode code) {
            QTest::newRow(name) << R"({"code":%1,"message":"What happened."})"_ba.replace("%1",
                                                                                          QByteArray::number(number))
                                << code << number << known;
        };
        row("no such session", -32094, ExitCode::NoSuchSession);
        row("invalid state", -32092, ExitCode::WrongState);
        row("agent timed out", -32077, ExitCode::TimedOut);
        row("any other", -32001, ExitCode::SessionFailed);
        const QString unknown = u"The server reports an error."_s;
        QTest::newRow("no message") << R"({"code":-32094})"_ba << ExitCode::NoSuchSession << -32094 << unknown;
        QTest::newRow("code is no number") << R"({"code":"x"})"_ba << ExitCode::SessionFailed << -1 << unknown;
        QTest::newRow("no object") << "null"_ba << ExitCode::SessionFailed << -1 << unknown;
    }
    void serverErrorsBecomeExitCodes()
    {
        QFETCH(QByteArray, sent);
        Json::Value problem;
        QVERIFY(parseJson(sent, &problem));
        FakeServer server(own, [&problem](QSslSocket *peer, const Json::Value &request) {
            Json::Value message(Json::objectValue);
            message["id"] = member(request, "id");
            message["error"] = problem;
            FakeServer::send(peer, message);
        });
        RpcClient client;
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        Json::Value result = "untouched";
        Failure failure;
        QVERIFY(!client.call(u"m"_s, {}, &result, &failure));
        QTEST(failure.code, "code");
        QTEST(failure.text, "text");
        QTEST(client.lastErrorCode(), "number");
        QCOMPARE(stringFromJson(result), u"untouched"_s);
        QVERIFY(client.isConnected());
    }

    void lateAnswerDoesNotAnswerTheNextRequest()
    {
        Json::Value first;
        FakeServer server(own, [&first](QSslSocket *peer, const Json::Value &request) {
            if (first.isNull()) {
                first = request;
                return;
            }
            FakeServer::answer(peer, first, "first");
            FakeServer::answer(peer, request, "second");
        });
        RpcClient client;
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        Json::Value result;
        Failure failure;
        client.setAnswerTimeout(50ms);
        QVERIFY(!client.call(u"m"_s, {}, &result, &failure));
        QCOMPARE(failure.code, ExitCode::TimedOut);
        client.setAnswerTimeout(30s);
        QVERIFY(client.call(u"m"_s, {}, &result, &failure));
        QCOMPARE(stringFromJson(result), u"second"_s);
    }

    void notificationsMayComeBetweenAnswers()
    {
        FakeServer server(own, [](QSslSocket *peer, const Json::Value &request) {
            FakeServer::notify(peer, Json::Value());
            FakeServer::answer(peer, request, true);
            FakeServer::notify(peer, Json::Value(Json::arrayValue));
        });
        RpcClient client;
        QList<bool> nulls;
        connect(&client, &RpcClient::sessionsUpdated, this,
                [&nulls](const Json::Value &sessions) { nulls.append(sessions.isNull()); });
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        Json::Value result;
        Failure failure;
        QVERIFY(client.call(u"m"_s, {}, &result, &failure));
        QTRY_COMPARE(nulls, (QList{true, false}));
    }

    void lostConnectionEndsTheWait()
    {
        FakeServer server(own, [](QSslSocket *peer, const Json::Value &) { peer->disconnectFromHost(); });
        RpcClient client;
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        Json::Value result;
        Failure failure;
        for (int i = 0; i < 2; ++i) { // while it waits, and when the connection is lost already
            QVERIFY(!client.call(u"m"_s, {}, &result, &failure));
            QCOMPARE(failure.code, ExitCode::NoServer);
            QVERIFY2(failure.text.contains("the server closed it"_L1), qPrintable(failure.text));
            QVERIFY(!client.isConnected());
        }
    }

    void invalidMessageEndsTheConnection_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::newRow("no length") << "abc:"_ba;
        QTest::newRow("endless length") << "99999999:"_ba;
        QTest::newRow("no comma") << "2:{}."_ba;
        QTest::newRow("no JSON") << "1:x,"_ba;
        QTest::newRow("no object") << "2:[],"_ba;
        QTest::newRow("trailing comma") << "20:{\"id\":1,\"result\":1,},"_ba;
        QTest::newRow("byte order mark") << "22:\xef\xbb\xbf{\"id\":1,\"result\":1},"_ba;
    }
    void invalidMessageEndsTheConnection()
    {
        QFETCH(QByteArray, sent);
        FakeServer server(own, [&sent](QSslSocket *peer, const Json::Value &) { peer->write(sent); });
        RpcClient client;
        QCOMPARE(connectTo(&client, server.port()), RpcClient::Outcome::Connected);
        Json::Value result;
        Failure failure;
        QVERIFY(!client.call(u"m"_s, {}, &result, &failure));
        QCOMPARE(failure.code, ExitCode::NoServer);
        QVERIFY2(failure.text.contains("invalid message"_L1), qPrintable(failure.text));
        QTRY_VERIFY(server.clients().isEmpty());
    }

private:
    static void echo(QSslSocket *peer, const Json::Value &request)
    {
        FakeServer::answer(peer, request, member(request, "method"));
    }

    RpcClient::Outcome connectTo(RpcClient *client, quint16 port)
    {
        return client->connectTo(port, {own.certificate, own.key}, 30s, &error);
    }

    QTemporaryDir dir;
    TestIdentity own;
    TestIdentity foreign;
    TestIdentity renewed; ///< our own key and name in another certificate
    QString error;
};

ZARVO_TEST(TestRpcClient)
#include "tst_rpcclient.moc"
