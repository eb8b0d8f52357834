// SPDX-License-Identifier: MIT
#include "discovery/peerquery.h"
#include "rpc/netstring.h"
#include "tests/discovery/peerservice.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTest>

using namespace Qt::StringLiterals;

using Manner = PeerService::Manner;

class TestPeerQuery : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void sessionsAreRead_data();
    void sessionsAreRead();
    void requestIsThisToTheByte();
    void ownCertificateIsShown();
    void answerInPiecesIsPutTogether_data();
    void answerInPiecesIsPutTogether();
    void refusedAnswersLeaveTheListUnchanged_data();
    void refusedAnswersLeaveTheListUnchanged();
    void errorNamesAPeerThatHangsUp_data();
    void errorNamesAPeerThatHangsUp();
    void otherCertificateIsRefusedBeforeTheRequest();
    void errorNamesAPeerThatIsNotThere();
    void errorNamesAPeerWithoutTls();
    void silenceEndsAfterFifteenSeconds_data();
    void silenceEndsAfterFifteenSeconds();
    void floodEndsAfterFifteenSeconds();

private:
    [[nodiscard]] bool ask(const PeerService &peer) { return ask(peer.port()); }
    [[nodiscard]] bool ask(quint16 port)
    {
        sessions = {known};
        error = u"untouched"_s;
        return fetchPeerSessions(QHostAddress(QHostAddress::LocalHost), port, own.certificate, own.key, sessions,
                                 error);
    }
    [[nodiscard]] QStringList ids() const
    {
        QStringList all;
        for (const SessionInfo &info : sessions) {
            all << info.id;
        }
        return all;
    }

    KeyPair own;
    KeyPair foreign;
    SessionInfo known;
    QList<SessionInfo> sessions;
    QString error;
};

namespace {

const QHostAddress kLocal(QHostAddress::LocalHost);

QByteArray answer(const QByteArray &members)
{
    return encodeNetString(R"({"id":"ServerUpdate","jsonrpc":"2.0",)" + members + "}");
}

} // namespace

void TestPeerQuery::initTestCase()
{
    own = KeyPair::make();
    foreign = KeyPair::make();
    QVERIFY(!own.certificate.isNull());
    QVERIFY(!own.key.isNull());
    QVERIFY(own.certificate != foreign.certificate);
    known.id = u"known"_s;
}

void TestPeerQuery::sessionsAreRead_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QStringList>("ids");
    QTest::newRow("null") << answer(R"("result":null)") << QStringList();
    QTest::newRow("none") << answer(R"("result":[])") << QStringList();
    QTest::newRow("one") << answer(R"("result":[{"id":"a"}])") << QStringList{u"a"_s};
    QTest::newRow("in their order") << answer(R"("result":[{"id":"b"},{"id":"a"},{"id":"b"}])")
                                    << QStringList{u"b"_s, u"a"_s, u"b"_s};
    QTest::newRow("no members") << answer(R"("result":[{}])") << QStringList{u""_s};
    QTest::newRow("invalid ones are skipped")
        << answer(R"("result":[null,1,"a",true,[],[{"id":"x"}],{"id":"a"},{"id":1},{"id":"x","name":null},{"id":"b"}])")
        << QStringList{u"a"_s, u"b"_s};
    QTest::newRow("more members") << answer(R"("error":null,"result":[{"id":"a","x":1}],"z":[])")
                                  << QStringList{u"a"_s};
    QTest::newRow("bytes after it") << answer(R"("result":[{"id":"a"}])") + "nonsense" << QStringList{u"a"_s};
    QTest::newRow("leading zeros") << "0" + answer(R"("result":[{"id":"a"}])") << QStringList{u"a"_s};
    QTest::newRow("invalid UTF-8") << answer("\"result\":[{\"id\":\"a\xff\"}]") << QStringList{u"a\uFFFD"_s};
    // A peer pushes changes to all its clients. We are one of them until it has answered.
    const QByteArray change = encodeNetString(R"({"jsonrpc":"2.0","method":"UpdateSessions","params":[{"id":"x"}]})");
    QTest::newRow("after a notification") << change + answer(R"("result":[{"id":"a"}])") << QStringList{u"a"_s};
    QTest::newRow("after many notifications")
        << change.repeated(5000) + answer(R"("result":[{"id":"a"}])") << QStringList{u"a"_s};
    const QByteArray head = R"({"id":"ServerUpdate","jsonrpc":"2.0","result":[],"x":")";
    QTest::newRow("largest frame") << encodeNetString(head + QByteArray(65536 - head.size() - 2, 'x') + "\"}")
                                   << QStringList();
    QTest::newRow("many") << answer("\"result\":[" + QByteArray("{},").repeated(4999) + "{}]")
                          << QStringList(5000, u""_s);
}

void TestPeerQuery::sessionsAreRead()
{
    QFETCH(const QByteArray, frame);
    PeerService peer(kLocal, own);
    peer.setPieces({frame});
    QVERIFY2(ask(peer), qPrintable(error));
    QTEST(ids(), "ids");
    QCOMPARE(error, u"untouched"_s);
}

void TestPeerQuery::requestIsThisToTheByte()
{
    PeerService peer(kLocal, own);
    peer.setPieces({answer(R"("result":null)")});
    QVERIFY2(ask(peer), qPrintable(error));
    QCOMPARE(peer.received(),
             encodeNetString("{\"id\":\"ServerUpdate\",\"jsonrpc\":\"2.0\",\"method\":\"Live.ListLocalSessions\","
                             "\"params\":null}\n"));
}

void TestPeerQuery::ownCertificateIsShown()
{
    PeerService peer(kLocal, own);
    peer.setPieces({answer(R"("result":null)")});
    QVERIFY2(ask(peer), qPrintable(error));
    QCOMPARE(peer.shown(), own.certificate);
}

void TestPeerQuery::answerInPiecesIsPutTogether_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {1, 2, 3, 10, 50}) {
        QTest::addRow("%d", size) << size;
    }
}

void TestPeerQuery::answerInPiecesIsPutTogether()
{
    QFETCH(const int, size);
    const QByteArray whole = answer(R"("result":[{"id":"a"},{"id":"b"}])");
    QList<QByteArray> pieces;
    for (qsizetype at = 0; at < whole.size(); at += size) {
        pieces << whole.mid(at, size);
    }
    PeerService peer(kLocal, own);
    peer.setPieces(pieces);
    QVERIFY2(ask(peer), qPrintable(error));
    QCOMPARE(ids(), (QStringList{u"a"_s, u"b"_s}));
}

void TestPeerQuery::refusedAnswersLeaveTheListUnchanged_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QString>("message");
    const QString invalid = u"Received invalid JSON"_s;
    const auto json = [&invalid](const char *name, const QByteArray &text) {
        QTest::newRow(name) << encodeNetString(text) << invalid;
    };
    json("nothing", "");
    json("not JSON", "no JSON");
    json("cut", R"({"id":"ServerUpdate","jsonrpc":"2.0","result":[])");
    json("trailing comma", R"({"id":"ServerUpdate","jsonrpc":"2.0","result":[],})");
    json("trailing comma in the list", R"({"id":"ServerUpdate","jsonrpc":"2.0","result":[{"id":"a"},]})");
    json("byte order mark", "\xef\xbb\xbf"
                            R"({"id":"ServerUpdate","jsonrpc":"2.0","result":[]})");
    json("notification with a trailing comma", R"({"jsonrpc":"2.0","method":"UpdateSessions","params":null,})");
    json("too deep", QByteArray(60000, '['));
    json("array", R"([{"id":"ServerUpdate","jsonrpc":"2.0","result":[]}])");
    json("number", "5");
    json("null", "null");
    json("no id", R"({"jsonrpc":"2.0","result":[]})");
    json("other id", R"({"id":"serverUpdate","jsonrpc":"2.0","result":[]})");
    json("longer id", R"({"id":"ServerUpdate\u0000","jsonrpc":"2.0","result":[]})");
    json("id is a number", R"({"id":1,"jsonrpc":"2.0","result":[]})");
    json("id is null", R"({"id":null,"jsonrpc":"2.0","result":[]})");
    json("no version", R"({"id":"ServerUpdate","result":[]})");
    json("other version", R"({"id":"ServerUpdate","jsonrpc":"1.0","result":[]})");
    json("version is a number", R"({"id":"ServerUpdate","jsonrpc":2.0,"result":[]})");
    json("other id with an error", R"({"id":"x","jsonrpc":"2.0","error":{"code":1,"message":"late"}})");
    json("neither", R"({"id":"ServerUpdate","jsonrpc":"2.0"})");
    json("other notification", R"({"jsonrpc":"2.0","method":"Update","params":null})");
    json("notification with an id", R"({"id":"x","jsonrpc":"2.0","method":"UpdateSessions","params":null})");
    json("notification of no version", R"({"method":"UpdateSessions","params":null})");
    json("result is an object", R"({"id":"ServerUpdate","jsonrpc":"2.0","result":{"a":{"id":"a"}}})");
    json("result is text", R"({"id":"ServerUpdate","jsonrpc":"2.0","result":"a"})");
    json("result is a number", R"({"id":"ServerUpdate","jsonrpc":"2.0","result":0})");
    json("result is no list, and an error", // an answer with a result is not an error
         R"({"id":"ServerUpdate","jsonrpc":"2.0","result":false,"error":{"code":1,"message":"late"}})");
    const auto failed = [&](const char *name, const QByteArray &value, const QString &message) {
        QTest::newRow(name) << answer("\"error\":" + value) << message;
    };
    failed("error is null", "null", invalid);
    failed("error is text", R"("late")", invalid);
    failed("error without code", R"({"message":"late"})", invalid);
    failed("error without message", R"({"code":1})", invalid);
    failed("code is text", R"({"code":"1","message":"late"})", invalid);
    failed("code has a fraction", R"({"code":1.5,"message":"late"})", invalid);
    failed("code has a fraction of zero", R"({"code":1.0,"message":"late"})", invalid);
    failed("large code", R"({"code":-1099511627776,"message":"late"})", u"late"_s);
    failed("message is a number", R"({"code":1,"message":5})", invalid);
    failed("error", R"({"code":-32094,"message":"No session exists with the given id."})",
           u"No session exists with the given id."_s);
    failed("error with placeholders", R"({"code":0,"message":"%1 %2 %3","data":[]})", u"%1 %2 %3"_s);
    failed("error with an empty message", R"({"code":1,"message":""})", u""_s);
    const QString length = u"Invalid NetString length"_s;
    for (const char *bytes : {"65537:", "99999999999999999999:", "123456", ":", "a:", "-1:", "+1:a,", "nonsense"}) {
        QTest::newRow(bytes) << QByteArray(bytes) << length;
    }
    QTest::newRow("over the limit") << encodeNetString(QByteArray(65537, ' ')) << length;
    QTest::newRow("no comma") << "3:abcX"_ba << u"Missing NetString comma"_s;
}

void TestPeerQuery::refusedAnswersLeaveTheListUnchanged()
{
    QFETCH(const QByteArray, frame);
    PeerService peer(kLocal, own);
    peer.setPieces({frame});
    QVERIFY(!ask(peer));
    QTEST(error, "message");
    QCOMPARE(ids(), QStringList{known.id});
}

void TestPeerQuery::errorNamesAPeerThatHangsUp_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("at once") << QByteArray();
    QTest::newRow("in the length") << "12"_ba;
    QTest::newRow("in the text") << "12:abc"_ba;
    QTest::newRow("before the comma") << "3:abc"_ba;
}

void TestPeerQuery::errorNamesAPeerThatHangsUp()
{
    QFETCH(const QByteArray, frame);
    PeerService peer(kLocal, own, Manner::HangsUp);
    peer.setPieces({frame});
    QVERIFY(!ask(peer));
    const QString start = u"Failed to read from \"127.0.0.1\" port \"%1\": "_s.arg(peer.port());
    QVERIFY2(error.startsWith(start) && error.size() > start.size(), qPrintable(error));
    QCOMPARE(ids(), QStringList{known.id});
}

void TestPeerQuery::otherCertificateIsRefusedBeforeTheRequest()
{
    PeerService peer(kLocal, foreign);
    peer.setPieces({answer(R"("result":[{"id":"a"}])")});
    QVERIFY(!ask(peer));
    QCOMPARE(error, u"The certificate at \"127.0.0.1\" port \"%1\" does not match"_s.arg(peer.port()));
    QCOMPARE(ids(), QStringList{known.id});
    QCOMPARE(peer.received(), QByteArray());
}

void TestPeerQuery::errorNamesAPeerThatIsNotThere()
{
    quint16 port = 0;
    {
        QTcpServer server;
        QVERIFY(server.listen(kLocal));
        port = server.serverPort();
    }
    QVERIFY(!ask(port));
    const QString start = u"Failed to connect to \"127.0.0.1\" port \"%1\": "_s.arg(port);
    QVERIFY2(error.startsWith(start) && error.size() > start.size(), qPrintable(error));
}

void TestPeerQuery::errorNamesAPeerWithoutTls()
{
    PeerService peer(kLocal, own, Manner::NoTls);
    QVERIFY(!ask(peer));
    const QString start = u"Failed to connect to \"127.0.0.1\" port \"%1\": "_s.arg(peer.port());
    QVERIFY2(error.startsWith(start) && error.size() > start.size(), qPrintable(error));
}

void TestPeerQuery::silenceEndsAfterFifteenSeconds_data()
{
    QTest::addColumn<bool>("encrypts");
    QTest::addColumn<QString>("what");
    QTest::newRow("before the handshake") << false << u"connect to"_s;
    QTest::newRow("after it") << true << u"read from"_s;
}

void TestPeerQuery::silenceEndsAfterFifteenSeconds()
{
    QFETCH(const bool, encrypts);
    QFETCH(const QString, what);
    PeerService peer(kLocal, own, encrypts ? Manner::Answers : Manner::NeverEncrypts);
    peer.setPieces({"100:{"});
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!ask(peer));
    QVERIFY2(timer.elapsed() >= 14900, qPrintable(QString::number(timer.elapsed())));
    QVERIFY2(timer.elapsed() < 25000, qPrintable(QString::number(timer.elapsed())));
    const QString start = u"Failed to %1 \"127.0.0.1\" port \"%2\": "_s.arg(what, QString::number(peer.port()));
    QVERIFY2(error.startsWith(start) && error.size() > start.size(), qPrintable(error));
}

void TestPeerQuery::floodEndsAfterFifteenSeconds()
{
    // There is always something to read, but the handshake never ends.
    PeerService peer(kLocal, own, Manner::FloodsHandshake);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!ask(peer));
    QVERIFY2(timer.elapsed() >= 14900, qPrintable(QString::number(timer.elapsed())));
    QVERIFY2(timer.elapsed() < 25000, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(error, u"Failed to connect to \"127.0.0.1\" port \"%1\": Network operation timed out"_s.arg(peer.port()));
}

ZARVO_TEST(TestPeerQuery)

#include "tst_peerquery.moc"
