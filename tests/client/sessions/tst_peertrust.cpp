// SPDX-License-Identifier: MIT
#include "client/sessions/peertrust.h"
#include "tests/client/sessions.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestPeerTrust : public QObject
{
    Q_OBJECT

private slots:
    void reportsAreRead()
    {
        const auto reports = readPeerReports(
            R"([{"address":"192.0.2.7","port":1,"sessions":[{"id":"a","location":"ssh://h/"},{"id":"b","location":""}]},)"
            R"({"address":"2001:db8::1","sessions":[],"more":1}])");
        const QHostAddress peer(u"192.0.2.7"_s);
        QCOMPARE(reports, (QList<PeerReport>{{peer, u"a"_s, u"ssh://h/"_s}, {peer, u"b"_s, QString()}}));
    }

    void fileThatBreaksTheFormIsRefused_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("empty") << ""_ba;
        QTest::newRow("half") << "[{\"address\":\"192.0.2.7\""_ba;
        QTest::newRow("object") << "{}"_ba;
        QTest::newRow("no peer") << "[1]"_ba;
        QTest::newRow("no address") << R"([{"sessions":[]}])"_ba;
        QTest::newRow("name for an address") << R"([{"address":"host","sessions":[]}])"_ba;
        QTest::newRow("no sessions") << R"([{"address":"192.0.2.7"}])"_ba;
        QTest::newRow("no session") << R"([{"address":"192.0.2.7","sessions":["a"]}])"_ba;
        QTest::newRow("no id") << R"([{"address":"192.0.2.7","sessions":[{"location":"x"}]}])"_ba;
        QTest::newRow("number for a location")
            << R"([{"address":"192.0.2.7","sessions":[{"id":"a","location":1}]}])"_ba;
        QTest::newRow("good one first")
            << R"([{"address":"192.0.2.7","sessions":[]},{"address":"192.0.2.8","sessions":{}}])"_ba;
    }
    void fileThatBreaksTheFormIsRefused()
    {
        QFETCH(QByteArray, json);
        QVERIFY(!readPeerReports(json));
    }

    void addressesAreCompared_data()
    {
        QTest::addColumn<QString>("left");
        QTest::addColumn<QString>("right");
        QTest::addColumn<bool>("same");
        QTest::newRow("equal") << u"192.0.2.7"_s << u"192.0.2.7"_s << true;
        QTest::newRow("different") << u"192.0.2.7"_s << u"192.0.2.8"_s << false;
        QTest::newRow("mapped") << u"192.0.2.7"_s << u"::ffff:192.0.2.7"_s << true;
        QTest::newRow("IPv6") << u"2001:db8::1"_s << u"2001:db8:0::1"_s << true;
        QTest::newRow("same number in the other family") << u"0.0.0.1"_s << u"::1"_s << false;
        QTest::newRow("link-local without interface") << u"fe80::1%lo"_s << u"fe80::1"_s << true;
        QTest::newRow("interface by name and number") << u"fe80::1%lo"_s << u"fe80::1%1"_s << true;
        QTest::newRow("other interface") << u"fe80::1%lo"_s << u"fe80::1%77"_s << false;
    }
    void addressesAreCompared()
    {
        QFETCH(QString, left);
        QFETCH(QString, right);
        QTEST(isSameAddress(QHostAddress(left), QHostAddress(right)), "same");
        QTEST(isSameAddress(QHostAddress(right), QHostAddress(left)), "same");
    }

    void locationMustBeTheHostThatReportedIt_data()
    {
        QTest::addColumn<QString>("location");
        QTest::addColumn<bool>("trusted");
        QTest::newRow("this host") << QString() << true;
        QTest::newRow("peer") << u"ssh://me@192.0.2.7:22/x"_s << true;
        QTest::newRow("third host") << u"ssh://me@192.0.2.8/x"_s << false;
        QTest::newRow("name of another host") << u"ssh://localhost/x"_s << false;
        QTest::newRow("peer as the user's name") << u"ssh://192.0.2.7@192.0.2.8/"_s << false;
        QTest::newRow("no host") << u"nonsense"_s << false;
    }
    void locationMustBeTheHostThatReportedIt()
    {
        QFETCH(QString, location);
        putPeers(u"192.0.2.7"_s, location);
        QTEST(isTrusted(location), "trusted");
    }

    void nameWithTheAddressOfThePeerIsTrusted()
    {
        putPeers(u"127.0.0.1"_s, u"ssh://localhost/x"_s);
        QVERIFY(isTrusted(u"ssh://localhost/x"_s));
    }

    void anotherLocationOrSessionOfThePeerIsNotTrusted()
    {
        putPeers(u"192.0.2.7"_s, u"ssh://192.0.2.7/x"_s);
        QVERIFY(isTrusted(u"ssh://192.0.2.7/x"_s));
        QVERIFY(!isTrusted(u"ssh://192.0.2.7/y"_s));
        QVERIFY(!isTrusted(u"ssh://192.0.2.7/x"_s, u"9"_s));
    }

    void withoutAFileNothingIsTrusted()
    {
        QVERIFY(!isTrusted(u"ssh://192.0.2.7/x"_s));
        QVERIFY(::mkfifo(qPrintable(files().peersPath()), 0600) == 0);
        QVERIFY(!isTrusted(u"ssh://192.0.2.7/x"_s));
    }

    void cleanup() { QFile::remove(files().peersPath()); }

private:
    [[nodiscard]] ServerFiles files() const { return ServerFiles(folder.path()); }

    void putPeers(const QString &address, const QString &location) const
    {
        const QString session = u"{\"id\":\"%1\",\"location\":\"%2\"}"_s.arg(makeSession(u"1"_s, {}).id, location);
        putFile(files().peersPath(),
                u"[{\"address\":\"%1\",\"port\":1,\"sessions\":[%2]}]"_s.arg(address, session).toUtf8());
    }

    [[nodiscard]] bool isTrusted(const QString &location, const QString &digits = u"1"_s) const
    {
        SessionList sessions = {makeSession(digits, u"name"_s)};
        sessions.first().location = location;
        markTrust(files(), &sessions);
        return sessions.first().trusted;
    }

    const QTemporaryDir folder;
};

ZARVO_TEST(TestPeerTrust)
#include "tst_peertrust.moc"
