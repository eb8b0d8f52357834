// SPDX-License-Identifier: MIT
#include "client/sessions/sessionentry.h"
#include "support/json.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestSessionEntry : public QObject
{
    Q_OBJECT

private slots:
    void stateFollowsFromThePermissions_data()
    {
        QTest::addColumn<QStringList>("permissions");
        QTest::addColumn<QString>("state");
        QTest::newRow("connected") << QStringList{u"disconnect"_s, u"terminate"_s} << u"connected"_s;
        QTest::newRow("offered") << QStringList{u"retry"_s, u"terminate"_s} << u"offered"_s;
        QTest::newRow("suspended") << QStringList{u"connect"_s, u"terminate"_s} << u"suspended"_s;
        QTest::newRow("none") << QStringList() << u"unknown"_s;
        QTest::newRow("unknown permission") << QStringList{u"unheard-of"_s} << u"unknown"_s;
    }
    void stateFollowsFromThePermissions()
    {
        QFETCH(QStringList, permissions);
        SessionEntry entry;
        entry.permissions = permissions;
        QTEST(stateName(entry.state()), "state");
    }

    void stateNamesGoBothWays()
    {
        for (const EntryState state : {EntryState::Connected, EntryState::Offered, EntryState::Suspended}) {
            QVERIFY(stateFromName(stateName(state)) == state);
        }
        QVERIFY(!stateFromName(u"unknown"_s));
        QVERIFY(!stateFromName(QString()));
    }

    void listSkipsWhatIsNoSession()
    {
        QVERIFY(entriesFromJson(Json::Value()).isEmpty());
        QVERIFY(entriesFromJson(Json::Value("text")).isEmpty());
        QCOMPARE(writeJson(entriesToJson({})), QByteArray("[]\n"));
        Json::Value list;
        QVERIFY(parseJson(R"([1, {"id": 5}, {"id": "a", "name": 7, "permissions": "connect|terminate", "more": []}])",
                          &list));
        const SessionList sessions = entriesFromJson(list);
        QCOMPARE(sessions.size(), 1);
        QCOMPARE(sessions[0].id, u"a"_s);
        QCOMPARE(sessions[0].name, QString());
        QVERIFY(sessions[0].state() == EntryState::Suspended);
    }

    void jsonHasTheDocumentedForm()
    {
        SessionEntry entry = makeSession(u"ab"_s, u"näme"_s);
        const Json::Value value = entry.toJson();
        QCOMPARE(value["started"].asString(), std::string("2026-01-31T23:59:58"));
        QVERIFY(value["lastConnect"].isNull());
        QCOMPARE(value["permissions"].size(), 2U);
        QCOMPARE(value["trusted"].asBool(), true);
        QCOMPARE(stringFromJson(value["name"]), u"näme"_s);
    }

    void hostIsThatOfTheLocation()
    {
        SessionEntry entry;
        QCOMPARE(entry.host(), QString());
        entry.location = u"ssh://me@far.example:2222/zarvo_sci"_s;
        QCOMPARE(entry.host(), u"far.example"_s);
    }

    void shortIdsDistinguishAllSessions()
    {
        QCOMPARE(shortIdLength({}), 8);
        QCOMPARE(shortIdLength({makeSession(u"12345678a"_s, {}), makeSession(u"12345679"_s, {})}), 8);
        QCOMPARE(shortIdLength(
                     {makeSession(u"123456789a"_s, {}), makeSession(u"f"_s, {}), makeSession(u"123456789b"_s, {})}),
                 10);
        QCOMPARE(shortIdLength({makeSession(u"1"_s, {}), makeSession(u"1"_s, {})}), 8);
    }
};

ZARVO_TEST(TestSessionEntry)
#include "tst_sessionentry.moc"
