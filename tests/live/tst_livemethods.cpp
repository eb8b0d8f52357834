// SPDX-License-Identifier: MIT
#include "engine/session.h"
#include "live/livemethods.h"
#include "live/sessionstore.h"
#include "rpc/rpcmethod.h"
#include "support/json.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/fakeprograms.h"
#include "tests/helpers/files.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QMap>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

class TestLiveMethods : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void tableHasTheMethodsOfTheService();
    void dictionaryOfTheFuzzTargetHasAllMethods();
    void descriptionIsExact_data();
    void descriptionIsExact();

    void idIsAccepted_data();
    void idIsAccepted();
    void idIsRefused_data();
    void idIsRefused();
    void startParametersAreAccepted_data();
    void startParametersAreAccepted();
    void startParametersAreRefused_data();
    void startParametersAreRefused();
    void methodsWithoutParametersIgnoreThem_data();
    void methodsWithoutParametersIgnoreThem();

    void sessionErrorsReachTheClient_data();
    void sessionErrorsReachTheClient();
    void failedStartReachesTheClient();

    void versionIsTheApplications();
    void emptyListsAreNull();
    void localSessionsAreListed();
    void allSessionsAreListed();
    void listingFailsWhenASessionIsRemoved_data();
    void listingFailsWhenASessionIsRemoved();
    void startAnswersWithTheConnection();
    void resumeAnswersWithTheConnection();
    void replayAnswersWithTheConnection();
    void textsReachTheClientInUtf8();
    void suspendAnswersWithNull();
    void terminateAnswersWithNull();

private:
    Session *addRecord(const QString &id);
    [[nodiscard]] std::unique_ptr<RpcMethod> makeMethod(const QString &name) const;
    /** Calls a method with these parameters and returns its answer, both as JSON text. */
    QByteArray call(const QString &method, const QByteArray &params);

    const QString id = testId(0xa);
    std::unique_ptr<ReservedDisplays> displays;
    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionStore> store;
    bool isSuccess = false; ///< of the last call
};

namespace {

const QByteArray kInvalidParameters = "{\"code\":-32602,\"message\":\"Invalid parameters.\"}\n";
const QByteArray kNoSuchSession = "{\"code\":-32094,\"message\":\"No session exists with the given id.\"}\n";

Json::Value parsed(const QByteArray &text)
{
    Json::Value value;
    if (!parseJson(text, &value)) {
        qFatal("Not JSON: %s", text.constData());
    }
    return value;
}

} // namespace

void TestLiveMethods::init()
{
    logger = std::make_unique<CollectingLogger>();
    displays = std::make_unique<ReservedDisplays>();
    folder = std::make_unique<QTemporaryDir>();
    store = std::make_unique<SessionStore>(folder->path(), displays->first(), displays->end(), u"zarvo://here:1"_s);
}

void TestLiveMethods::cleanup()
{
    store.reset();
    endStartedAgent(sessionDirectory(folder->path(), id));
    folder.reset();
    displays.reset();
    logger.reset();
}

Session *TestLiveMethods::addRecord(const QString &recordId)
{
    auto session = std::make_unique<Session>();
    Session *record = session.get();
    record->display = displays->first();
    record->windowMode = u"desktop"_s;
    record->name = u"xterm"_s;
    store->addSession(recordId, std::move(session));
    store->release(recordId);
    return record;
}

std::unique_ptr<RpcMethod> TestLiveMethods::makeMethod(const QString &name) const
{
    QMap<QString, RpcMethod *> methods = makeLiveMethods(store.get());
    std::unique_ptr<RpcMethod> method(methods.take(u"Live."_s + name));
    qDeleteAll(methods);
    return method;
}

QByteArray TestLiveMethods::call(const QString &method, const QByteArray &params)
{
    Json::Value result;
    isSuccess = makeMethod(method)->execute(parsed(params), result);
    return writeJson(result);
}

void TestLiveMethods::tableHasTheMethodsOfTheService()
{
    const QMap<QString, RpcMethod *> methods = makeLiveMethods(store.get());
    qDeleteAll(methods);
    QCOMPARE(methods.keys(),
             (QStringList{u"Live.GetVersion"_s, u"Live.ListLocalSessions"_s, u"Live.ListSessions"_s, u"Live.Replay"_s,
                          u"Live.Resume"_s, u"Live.Start"_s, u"Live.Suspend"_s, u"Live.Terminate"_s}));
}

void TestLiveMethods::dictionaryOfTheFuzzTargetHasAllMethods()
{
    const QByteArray dictionary = contentOf(QStringLiteral(ZARVO_SOURCES "/fuzz/dict/handler.dict"));
    const QMap<QString, RpcMethod *> methods = makeLiveMethods(store.get());
    qDeleteAll(methods);
    for (const QString &name : methods.keys()) {
        QVERIFY2(dictionary.contains('"' + name.toLatin1() + "\"\n"), qPrintable(name));
    }
}

void TestLiveMethods::descriptionIsExact_data()
{
    QTest::addColumn<QByteArray>("expected");

    const QByteArray idAlone = R"("parameters":{"id":{"description":"The session id.","type":"string"}},)";
    const QByteArray connection = R"("returns":"An object with the window mode, geometry, password and port number."})";
    QTest::newRow("GetVersion") << QByteArray(
        R"({"description":"Returns the server version.","parameters":null,"returns":"The server version."})");
    QTest::newRow("ListSessions") << QByteArray(
        R"({"description":"Returns all sessions known to the server.","parameters":null,)"
        R"("returns":"An array of session objects."})");
    QTest::newRow("ListLocalSessions") << QByteArray(
        R"({"description":"Returns the sessions on the server.","parameters":null,)"
        R"("returns":"An array of session objects."})");
    QTest::newRow("Start") << QByteArray(
        R"({"description":"Starts a new session.","parameters":{)"
        R"("command":{"description":"The command line for the application to run.","type":"string"},)"
        R"("geometry":{"description":"The width and height in \"WxH\" format for a Desktop session or \"rootless\" )"
        R"(for a Single Application session.","type":"string"},)"
        R"("id":{"description":"The session id.","type":"string"}},)"
        R"("returns":"An object with the geometry, password and port number."})");
    QTest::newRow("Resume") << R"({"description":"Reconnects to a session.",)" + idAlone + connection;
    QTest::newRow("Replay") << R"({"description":"Returns information about a session waiting for a connection.",)" +
                                   idAlone + connection;
    QTest::newRow("Suspend") << R"({"description":"Disconnects all clients from a session.",)" + idAlone +
                                    R"("returns":null})";
    QTest::newRow("Terminate") << R"({"description":"Terminates a session.",)" + idAlone + R"("returns":null})";
}

void TestLiveMethods::descriptionIsExact()
{
    QFETCH(QByteArray, expected);
    const QString method = QString::fromLatin1(QTest::currentDataTag());
    QCOMPARE(writeJson(makeMethod(method)->describe()), expected + '\n');
}

void TestLiveMethods::idIsAccepted_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QByteArray>("params");
    for (const char *method : {"Resume", "Replay", "Suspend", "Terminate"}) {
        for (const char *params :
             {R"(["unknown"])", R"(["unknown",5])", R"(["unknown","more",null])", R"([""])", R"({"id":"unknown"})",
              R"({"id":"unknown","more":7,"Id":null})", R"({"id":""})", R"(["0123456789abcdef0123456789abcdef",5])"}) {
            QTest::addRow("%s %s", method, params) << QString::fromLatin1(method) << QByteArray(params);
        }
    }
}

void TestLiveMethods::idIsAccepted()
{
    QFETCH(QString, method);
    QFETCH(QByteArray, params);
    QCOMPARE(call(method, params), kNoSuchSession);
    QVERIFY(!isSuccess);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestLiveMethods::idIsRefused_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QByteArray>("params");
    for (const char *method : {"Resume", "Replay", "Suspend", "Terminate"}) {
        for (const char *params : {"null", "true", "7", "\"unknown\"", "[]", "[5]", "[null]", R"([5,"unknown"])",
                                   R"([["unknown"]])", R"([{"id":"unknown"}])", "{}", R"({"id":7})", R"({"id":null})",
                                   R"({"id":["unknown"]})", R"({"ID":"unknown"})"}) {
            QTest::addRow("%s %s", method, params) << QString::fromLatin1(method) << QByteArray(params);
        }
    }
}

void TestLiveMethods::idIsRefused()
{
    QFETCH(QString, method);
    QFETCH(QByteArray, params);
    QCOMPARE(call(method, params), kInvalidParameters);
    QVERIFY(!isSuccess);
    QCOMPARE(logger->takeLines(), QStringList());
}

/** The store refuses a bad id, which proves that the method has accepted the parameters. */
void TestLiveMethods::startParametersAreAccepted_data()
{
    QTest::addColumn<QByteArray>("params");
    for (const char *params : {R"(["bad","command","1x1"])", R"(["bad","","",7,null])",
                               R"({"geometry":"1x1","command":"command","id":"bad"})",
                               R"({"geometry":"","command":"","id":"","more":[]})"}) {
        QTest::newRow(params) << QByteArray(params);
    }
}

void TestLiveMethods::startParametersAreAccepted()
{
    QFETCH(QByteArray, params);
    QCOMPARE(call(u"Start"_s, params), kNoSuchSession);
    QVERIFY(!isSuccess);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Got a bad id"_s});
}

void TestLiveMethods::startParametersAreRefused_data()
{
    QTest::addColumn<QByteArray>("params");
    for (const char *params :
         {"null", "7", "\"bad\"", "[]", R"(["bad"])", R"(["bad","command"])", R"([7,"command","1x1"])",
          R"(["bad",7,"1x1"])", R"(["bad","command",7])", R"(["bad","command",null,"1x1"])", "{}",
          R"({"command":"command","geometry":"1x1"})", R"({"id":"bad","geometry":"1x1"})",
          R"({"id":"bad","command":"command"})", R"({"id":7,"command":"command","geometry":"1x1"})",
          R"({"id":"bad","command":7,"geometry":"1x1"})", R"({"id":"bad","command":"command","geometry":7})"}) {
        QTest::newRow(params) << QByteArray(params);
    }
}

void TestLiveMethods::startParametersAreRefused()
{
    QFETCH(QByteArray, params);
    QCOMPARE(call(u"Start"_s, params), kInvalidParameters);
    QVERIFY(!isSuccess);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestLiveMethods::methodsWithoutParametersIgnoreThem_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QByteArray>("params");
    for (const char *method : {"GetVersion", "ListSessions", "ListLocalSessions"}) {
        for (const char *params : {"[]", "[5]", "{}", R"({"id":7})", "7", "\"text\"", "false"}) {
            QTest::addRow("%s %s", method, params) << QString::fromLatin1(method) << QByteArray(params);
        }
    }
}

void TestLiveMethods::methodsWithoutParametersIgnoreThem()
{
    QFETCH(QString, method);
    QFETCH(QByteArray, params);
    addRecord(id);
    const QByteArray expected = call(method, "null");
    QVERIFY(expected != "null\n");
    QCOMPARE(call(method, params), expected);
    QVERIFY(isSuccess);
}

void TestLiveMethods::sessionErrorsReachTheClient_data()
{
    QTest::addColumn<qint32>("clients");
    QTest::addColumn<QByteArray>("expected");
    const QByteArray state =
        "{\"code\":-32092,\"message\":\"The requested operation can not be started from the current state.\"}\n";
    const QByteArray initialized = "{\"code\":-32098,\"message\":\"The object is not initialized.\"}\n";
    QTest::newRow("Resume") << 1 << state;
    QTest::newRow("Replay") << 0 << state;
    QTest::newRow("Suspend") << 0 << state;
    QTest::newRow("Terminate") << 0 << initialized;
}

void TestLiveMethods::sessionErrorsReachTheClient()
{
    QFETCH(qint32, clients);
    QFETCH(QByteArray, expected);
    addRecord(id)->clients = clients;
    const QString method = QString::fromLatin1(QTest::currentDataTag());
    QCOMPARE(call(method, "[\"" + id.toUtf8() + "\"]"), expected);
    QVERIFY(!isSuccess);
    QCOMPARE(call(method, "{\"id\":\"" + id.toUtf8() + "\"}"), expected);
    QVERIFY(!isSuccess);
}

void TestLiveMethods::failedStartReachesTheClient()
{
    store = std::make_unique<SessionStore>(folder->path(), displays->first(), displays->first(), QString());
    const QByteArray params = "[\"" + id.toUtf8() + R"(","command","1x1"])";
    QCOMPARE(call(u"Start"_s, params),
             QByteArray("{\"code\":-32089,\"message\":\"Failed to find an open display.\"}\n"));
    QVERIFY(!isSuccess);
}

void TestLiveMethods::versionIsTheApplications()
{
    const QString before = QCoreApplication::applicationVersion();
    QCoreApplication::setApplicationVersion(u"1.2.345"_s);
    const QByteArray version = call(u"GetVersion"_s, "null");
    QCoreApplication::setApplicationVersion(before);
    QVERIFY(isSuccess);
    QCOMPARE(version, QByteArray("\"1.2.345\"\n"));
}

void TestLiveMethods::emptyListsAreNull()
{
    for (const QString &method : {u"ListSessions"_s, u"ListLocalSessions"_s}) {
        QCOMPARE(call(method, "null"), QByteArray("null\n"));
        QVERIFY(isSuccess);
    }
}

void TestLiveMethods::localSessionsAreListed()
{
    addRecord(testId(2));
    addRecord(testId(1))->clients = 1;
    SessionInfo peer;
    peer.id = u"peer"_s;
    store->storeRemoteSessions(u"key"_s, QDateTime::currentDateTime().addSecs(3600), {peer});
    const QByteArray location = R"("lastConnect":"","lastDisconnect":"","location":"zarvo://here:1","name":"xterm",)";
    const QByteArray expected = R"([{"id":"00000000000000000000000000000001",)" + location +
                                R"("permissions":"disconnect|terminate","started":"","windowMode":"desktop"},)" +
                                R"({"id":"00000000000000000000000000000002",)" + location +
                                R"("permissions":"connect|terminate","started":"","windowMode":"desktop"}])" + '\n';
    QCOMPARE(call(u"ListLocalSessions"_s, "null"), expected);
    QVERIFY(isSuccess);
}

void TestLiveMethods::allSessionsAreListed()
{
    addRecord(testId(1));
    SessionInfo peer;
    peer.id = testId(2);
    peer.location = QUrl(u"zarvo://there:2"_s);
    store->storeRemoteSessions(u"key"_s, QDateTime::currentDateTime().addSecs(3600), {peer});
    const Json::Value list = parsed(call(u"ListSessions"_s, "null"));
    QVERIFY(isSuccess);
    QCOMPARE(list.size(), 2U);
    QCOMPARE(stringFromJson(list[0]["id"]), testId(2));
    QCOMPARE(stringFromJson(list[0]["location"]), u"zarvo://there:2"_s);
    QCOMPARE(stringFromJson(list[1]["id"]), testId(1));
    QCOMPARE(stringFromJson(list[1]["location"]), u"zarvo://here:1"_s);
}

void TestLiveMethods::listingFailsWhenASessionIsRemoved_data()
{
    QTest::addColumn<QString>("method");
    QTest::newRow("local") << u"ListLocalSessions"_s;
    QTest::newRow("all") << u"ListSessions"_s;
}

void TestLiveMethods::listingFailsWhenASessionIsRemoved()
{
    QFETCH(QString, method);
    addRecord(testId(1));
    addRecord(testId(2));
    Session *session = nullptr;
    QCOMPARE(store->acquire(testId(2), session), 0);
    QByteArray answer;
    const BackgroundTask listing([&] { answer = call(method, "null"); });
    const bool isBlocked = listing.waitUntilBlocked();
    store->removeSession(testId(2));
    QVERIFY(listing.waitUntilDone());
    QVERIFY(isBlocked);
    QCOMPARE(answer, kNoSuchSession);
    QVERIFY(!isSuccess);
}

void TestLiveMethods::startAnswersWithTheConnection()
{
    const FakePrograms programs;
    AgentSocket socket(folder->filePath(u"socket"_s));
    programs.add(u"xauth"_s, u"exit 0"_s);
    programs.add(u"start-app"_s, u"exit 0"_s);
    const auto offer = [](const QString &password) {
        return tellState(u"{\"Started\":\"2024-01-02T03:04:05\",\"Passwords\":[%1]}"_s.arg(password));
    };
    socket.setStateFile(sessionDirectory(folder->path(), id) + u"/state"_s);
    programs.add(u"start-agent"_s, u"ln -s '%1' /tmp/Xrdp_$(($2 - 41000)).sock\n"_s.arg(folder->filePath(u"socket"_s)) +
                                       agentScript(offer(QString()), offer(u"\"pw\""_s), QString(), QString()));
    const QByteArray port = QByteArray::number(41000 + displays->first());
    const QByteArray params = "{\"id\":\"" + id.toUtf8() + R"(","command":"xterm","geometry":"Rootless"})";
    const QByteArray expected = R"({"geometry":"Rootless","password":"pw","port":)" + port + "}\n";
    QCOMPARE(call(u"Start"_s, params), expected);
    QVERIFY(isSuccess);
}

void TestLiveMethods::resumeAnswersWithTheConnection()
{
    const LiveSession live(
        folder->path(), id, displays->first(), u"{}"_s,
        {.onUsr1 = tellState(u"{\"Passwords\":[\"pw\"],\"ScreenWidth\":800,\"ScreenHeight\":600}"_s)});
    store = std::make_unique<SessionStore>(folder->path(), quint16(0), quint16(0), QString());
    const QByteArray port = QByteArray::number(41000 + displays->first());
    const QByteArray expected =
        R"({"geometry":"800x600","password":"pw","port":)" + port + ",\"windowMode\":\"desktop\"}\n";
    QCOMPARE(call(u"Resume"_s, "[\"" + id.toUtf8() + "\"]"), expected);
    QVERIFY(isSuccess);
}

void TestLiveMethods::replayAnswersWithTheConnection()
{
    Session *record = addRecord(id);
    record->passwords = QStringList{u"first"_s, u"last"_s};
    const QByteArray port = QByteArray::number(41000 + displays->first());
    const QByteArray expected =
        R"({"geometry":"-1x-1","password":"last","port":)" + port + ",\"windowMode\":\"desktop\"}\n";
    QCOMPARE(call(u"Replay"_s, "[\"" + id.toUtf8() + "\"]"), expected);
    QVERIFY(isSuccess);
    record->display = 24536; // the port has 16 bits
    QVERIFY(call(u"Replay"_s, "{\"id\":\"" + id.toUtf8() + "\"}").contains("\"port\":0,"));
}

void TestLiveMethods::textsReachTheClientInUtf8()
{
    addRecord(id)->passwords = QStringList{u"Gr\u00fc\u00dfe\n\"\u20ac\""_s};
    const Json::Value answer = parsed(call(u"Replay"_s, "[\"" + id.toUtf8() + "\"]"));
    QVERIFY(isSuccess);
    QCOMPARE(answer["password"].asString(), std::string("Gr\xc3\xbc\xc3\x9f"
                                                        "e\n\"\xe2\x82\xac\""));
}

void TestLiveMethods::suspendAnswersWithNull()
{
    const LiveSession live(folder->path(), id, displays->first(), u"{\"Clients\":1}"_s,
                           {.onUsr2 = tellState(u"{\"Clients\":0,\"LastDisconnect\":\"2024-01-02T03:04:06\"}"_s)});
    store = std::make_unique<SessionStore>(folder->path(), quint16(0), quint16(0), QString());
    QCOMPARE(call(u"Suspend"_s, "[\"" + id.toUtf8() + "\"]"), QByteArray("null\n"));
    QVERIFY(isSuccess);
}

void TestLiveMethods::terminateAnswersWithNull()
{
    const LiveSession live(folder->path(), id, displays->first(), u"{}"_s, {.onTerm = exitWith(0)});
    store = std::make_unique<SessionStore>(folder->path(), quint16(0), quint16(0), QString());
    QCOMPARE(call(u"Terminate"_s, "{\"id\":\"" + id.toUtf8() + "\"}"), QByteArray("null\n"));
    QVERIFY(isSuccess);
    QVERIFY(!QFileInfo::exists(live.directory));
    QCOMPARE(call(u"Terminate"_s, "{\"id\":\"" + id.toUtf8() + "\"}"), kNoSuchSession);
    QVERIFY(!isSuccess);
}

ZARVO_TEST(TestLiveMethods)
#include "tst_livemethods.moc"
