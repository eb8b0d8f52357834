// SPDX-License-Identifier: MIT
#include "engine/session.h"
#include "live/sessioninfo.h"
#include "support/json.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString kId = u"0123456789abcdefABCDEF0123456789"_s;

Json::Value parsed(const QByteArray &text)
{
    Json::Value value;
    if (!parseJson(text, &value)) {
        qFatal("Not JSON: %s", text.constData());
    }
    return value;
}

} // namespace

class TestSessionInfo : public QObject
{
    Q_OBJECT

private slots:
    void permissionsFollowFromClientsAndPasswords_data();
    void permissionsFollowFromClientsAndPasswords();
    void fieldsAreTakenFromTheSession();
    void jsonOfAnEmptyInfoHasAllMembers();
    void jsonIsTheExactBytes();
    void roundTripKeepsEveryField();
    void roundTripDropsMilliseconds();
    void missingKeyLeavesItsFieldEmpty_data();
    void missingKeyLeavesItsFieldEmpty();
    void emptyObjectGivesAnEmptyInfo();
    void unknownMembersAreIgnored();
    void onlyStringMembersGiveAnInfo_data();
    void onlyStringMembersGiveAnInfo();
    void onlyAnObjectGivesAnInfo_data();
    void onlyAnObjectGivesAnInfo();
    void emptyPermissionsAreOneEmptyString();
    void emptyPartsOfPermissionsAreKept();
    void invalidTextIsAnInvalidTime_data();
    void invalidTextIsAnInvalidTime();
    void emptyListIsNull();
    void listKeepsItsOrder();
};

void TestSessionInfo::permissionsFollowFromClientsAndPasswords_data()
{
    QTest::addColumn<qint32>("clients");
    QTest::addColumn<QStringList>("passwords");
    QTest::addColumn<QString>("expected");

    const QStringList none;
    const QStringList one{u"secret"_s};
    const QStringList empty{QString()};
    QTest::newRow("idle") << 0 << none << u"connect"_s;
    QTest::newRow("password offered") << 0 << one << u"retry"_s;
    QTest::newRow("empty password offered") << 0 << empty << u"retry"_s;
    QTest::newRow("one client") << 1 << none << u"disconnect"_s;
    QTest::newRow("one client and a password") << 1 << one << u"disconnect"_s;
    QTest::newRow("many clients") << 2147483647 << none << u"disconnect"_s;
    QTest::newRow("fewer than no clients") << -1 << none << u"disconnect"_s;
    QTest::newRow("fewer than no clients and a password") << -1 << one << u"disconnect"_s;
}

void TestSessionInfo::permissionsFollowFromClientsAndPasswords()
{
    QFETCH(qint32, clients);
    QFETCH(QStringList, passwords);
    QFETCH(QString, expected);
    Session session;
    session.clients = clients;
    session.passwords = passwords;
    const SessionInfo info(kId, QString(), session);
    QCOMPARE(info.permissions, (QStringList{expected, u"terminate"_s}));
}

void TestSessionInfo::fieldsAreTakenFromTheSession()
{
    Session session;
    session.windowMode = u"desktop"_s;
    session.name = u"the name"_s;
    session.started = QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5));
    session.lastConnect = QDateTime(QDate(2024, 2, 3), QTime(4, 5, 6));
    session.lastDisconnect = QDateTime(QDate(2024, 3, 4), QTime(5, 6, 7));
    const SessionInfo info(kId, u"https://host:1/path"_s, session);
    QCOMPARE(info.id, kId);
    QCOMPARE(info.location, QUrl(u"https://host:1/path"_s));
    QCOMPARE(info.windowMode, u"desktop"_s);
    QCOMPARE(info.name, u"the name"_s);
    QCOMPARE(info.started, session.started);
    QCOMPARE(info.lastConnect, session.lastConnect);
    QCOMPARE(info.lastDisconnect, session.lastDisconnect);
}

void TestSessionInfo::jsonOfAnEmptyInfoHasAllMembers()
{
    QCOMPARE(writeJson(SessionInfo().toJson()),
             QByteArray("{\"id\":\"\",\"lastConnect\":\"\",\"lastDisconnect\":\"\",\"location\":\"\",\"name\":\"\","
                        "\"permissions\":\"\",\"started\":\"\",\"windowMode\":\"\"}\n"));
}

void TestSessionInfo::jsonIsTheExactBytes()
{
    Session session;
    session.windowMode = u"rootless"_s;
    session.name = u"xterm -e \"vi\""_s;
    session.started = QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5, 678));
    session.lastConnect = QDateTime(QDate(2024, 12, 31), QTime(23, 59, 59, 999));
    session.passwords = QStringList{u"pw"_s};
    QCOMPARE(writeJson(SessionInfo(kId, u"zarvo://host:4711/a?b=c#d"_s, session).toJson()),
             QByteArray("{\"id\":\"0123456789abcdefABCDEF0123456789\",\"lastConnect\":\"2024-12-31T23:59:59\","
                        "\"lastDisconnect\":\"\",\"location\":\"zarvo://host:4711/a?b=c#d\","
                        "\"name\":\"xterm -e \\\"vi\\\"\",\"permissions\":\"retry|terminate\","
                        "\"started\":\"2024-01-02T03:04:05\",\"windowMode\":\"rootless\"}\n"));
}

void TestSessionInfo::roundTripKeepsEveryField()
{
    Session session;
    session.windowMode = u"desktop"_s;
    session.name = u"Gr\u00fc\u00dfe \U0001F600"_s;
    session.started = QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5));
    session.lastConnect = QDateTime(QDate(2024, 2, 3), QTime(4, 5, 6));
    session.lastDisconnect = QDateTime(QDate(2024, 3, 4), QTime(5, 6, 7));
    session.clients = 1;
    const SessionInfo info(kId, u"https://host:1/path"_s, session);

    const std::optional<SessionInfo> read = SessionInfo::fromJson(parsed(writeJson(info.toJson())));
    QVERIFY(read.has_value());
    QCOMPARE(read->id, info.id);
    QCOMPARE(read->location, info.location);
    QCOMPARE(read->windowMode, info.windowMode);
    QCOMPARE(read->name, info.name);
    QCOMPARE(read->started, info.started);
    QCOMPARE(read->lastConnect, info.lastConnect);
    QCOMPARE(read->lastDisconnect, info.lastDisconnect);
    QCOMPARE(read->permissions, (QStringList{u"disconnect"_s, u"terminate"_s}));
}

void TestSessionInfo::roundTripDropsMilliseconds()
{
    Session session;
    session.started = QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5, 999));
    const std::optional<SessionInfo> read = SessionInfo::fromJson(SessionInfo(kId, QString(), session).toJson());
    QVERIFY(read.has_value());
    QCOMPARE(read->started, QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5)));
    QVERIFY(read->lastConnect.isNull());
}

void TestSessionInfo::missingKeyLeavesItsFieldEmpty_data()
{
    QTest::addColumn<QString>("key");
    for (const char *key :
         {"id", "location", "windowMode", "name", "started", "lastConnect", "lastDisconnect", "permissions"}) {
        QTest::newRow(key) << QString::fromLatin1(key);
    }
}

void TestSessionInfo::missingKeyLeavesItsFieldEmpty()
{
    QFETCH(QString, key);
    Json::Value value = parsed(R"({"id":"i","location":"https://h/","windowMode":"w","name":"n",)"
                               R"("started":"2024-01-02T03:04:05","lastConnect":"2024-01-02T03:04:06",)"
                               R"("lastDisconnect":"2024-01-02T03:04:07","permissions":"connect"})");
    value.removeMember(key.toStdString());
    const std::optional<SessionInfo> info = SessionInfo::fromJson(value);
    QVERIFY(info.has_value());
    QCOMPARE(info->id, key == u"id"_s ? QString() : u"i"_s);
    QCOMPARE(info->location, key == u"location"_s ? QUrl() : QUrl(u"https://h/"_s));
    QCOMPARE(info->windowMode, key == u"windowMode"_s ? QString() : u"w"_s);
    QCOMPARE(info->name, key == u"name"_s ? QString() : u"n"_s);
    QCOMPARE(info->started.isNull(), key == u"started"_s);
    QCOMPARE(info->lastConnect.isNull(), key == u"lastConnect"_s);
    QCOMPARE(info->lastDisconnect.isNull(), key == u"lastDisconnect"_s);
    QCOMPARE(info->permissions, key == u"permissions"_s ? QStringList() : QStringList{u"connect"_s});
}

void TestSessionInfo::emptyObjectGivesAnEmptyInfo()
{
    const std::optional<SessionInfo> info = SessionInfo::fromJson(Json::Value(Json::objectValue));
    QVERIFY(info.has_value());
    QVERIFY(info->id.isEmpty());
    QVERIFY(info->permissions.isEmpty());
}

void TestSessionInfo::unknownMembersAreIgnored()
{
    const std::optional<SessionInfo> info = SessionInfo::fromJson(parsed(R"({"id":"i","clients":7,"Name":[]})"));
    QVERIFY(info.has_value());
    QCOMPARE(info->id, u"i"_s);
    QVERIFY(info->name.isEmpty());
}

void TestSessionInfo::onlyStringMembersGiveAnInfo_data()
{
    QTest::addColumn<QByteArray>("text");
    for (const char *key :
         {"id", "location", "windowMode", "name", "started", "lastConnect", "lastDisconnect", "permissions"}) {
        for (const char *other : {"null", "7", "1.5", "true", "[]", "{}", "[\"text\"]"}) {
            QTest::addRow("%s %s", key, other) << QByteArray("{\"") + key + "\":" + other + "}";
        }
    }
}

void TestSessionInfo::onlyStringMembersGiveAnInfo()
{
    QFETCH(QByteArray, text);
    QVERIFY(!SessionInfo::fromJson(parsed(text)).has_value());
}

void TestSessionInfo::onlyAnObjectGivesAnInfo_data()
{
    QTest::addColumn<QByteArray>("text");
    for (const char *text : {"null", "7", "true", "\"id\"", "[]", "[{\"id\":\"i\"}]"}) {
        QTest::newRow(text) << QByteArray(text);
    }
}

void TestSessionInfo::onlyAnObjectGivesAnInfo()
{
    QFETCH(QByteArray, text);
    QVERIFY(!SessionInfo::fromJson(parsed(text)).has_value());
}

void TestSessionInfo::emptyPermissionsAreOneEmptyString()
{
    const std::optional<SessionInfo> info = SessionInfo::fromJson(parsed(R"({"permissions":""})"));
    QVERIFY(info.has_value());
    QCOMPARE(info->permissions, QStringList{QString()});
}

void TestSessionInfo::emptyPartsOfPermissionsAreKept()
{
    const std::optional<SessionInfo> info = SessionInfo::fromJson(parsed(R"({"permissions":"|connect||"})"));
    QVERIFY(info.has_value());
    QCOMPARE(info->permissions, (QStringList{QString(), u"connect"_s, QString(), QString()}));
}

void TestSessionInfo::invalidTextIsAnInvalidTime_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QString();
    QTest::newRow("words") << u"yesterday"_s;
    QTest::newRow("date alone") << u"2024-01-02"_s;
    QTest::newRow("month 13") << u"2024-13-02T03:04:05"_s;
    QTest::newRow("blank for T") << u"2024-01-02 03:04:05"_s;
    QTest::newRow("with a zone") << u"2024-01-02T03:04:05Z"_s;
}

void TestSessionInfo::invalidTextIsAnInvalidTime()
{
    QFETCH(QString, text);
    Json::Value value(Json::objectValue);
    value["started"] = jsonString(text);
    value["lastConnect"] = jsonString(text);
    value["lastDisconnect"] = jsonString(text);
    const std::optional<SessionInfo> info = SessionInfo::fromJson(value);
    QVERIFY(info.has_value());
    QVERIFY(!info->started.isValid());
    QVERIFY(!info->lastConnect.isValid());
    QVERIFY(!info->lastDisconnect.isValid());
}

void TestSessionInfo::emptyListIsNull()
{
    QCOMPARE(writeJson(sessionListToJson({})), QByteArray("null\n"));
}

void TestSessionInfo::listKeepsItsOrder()
{
    SessionInfo first;
    first.id = u"b"_s;
    SessionInfo second;
    second.id = u"a"_s;
    const Json::Value list = sessionListToJson({first, second});
    QVERIFY(list.isArray());
    QCOMPARE(list.size(), 2U);
    QCOMPARE(writeJson(list[0]), writeJson(first.toJson()));
    QCOMPARE(writeJson(list[1]), writeJson(second.toJson()));
}

ZARVO_TEST(TestSessionInfo)
#include "tst_sessioninfo.moc"
