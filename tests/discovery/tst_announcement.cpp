// SPDX-License-Identifier: MIT
#include "discovery/announcement.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestAnnouncement : public QObject
{
    Q_OBJECT

private slots:
    void datagramIsWrittenToTheByte_data();
    void datagramIsWrittenToTheByte();
    void datagramIsReadBack_data();
    void datagramIsReadBack();
    void decorationIsIgnored_data();
    void decorationIsIgnored();
    void wrongShapeIsStillJson_data();
    void wrongShapeIsStillJson();
    void otherTextIsNotJson_data();
    void otherTextIsNotJson();
    void truncatedDatagramIsNotJson();
};

namespace {

const QByteArray kExample = "{\"Method\":\"HELLO\",\"Port\":40123,\"User\":\"alice\"}\n"_ba;

void addPorts()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<quint16>("port");
    QTest::addColumn<QString>("user");
    QTest::addColumn<QByteArray>("text");
    const auto row = [](const char *name, const QString &method, quint16 port, const QString &user,
                        const QByteArray &text) { QTest::newRow(name) << method << port << user << text; };
    row("hello", u"HELLO"_s, 40123, u"alice"_s, kExample);
    row("update", u"UPDATE"_s, 40123, u"alice"_s, "{\"Method\":\"UPDATE\",\"Port\":40123,\"User\":\"alice\"}\n"_ba);
    row("no user", u"HELLO"_s, 1, u""_s, "{\"Method\":\"HELLO\",\"Port\":1,\"User\":\"\"}\n"_ba);
    row("letters", u"HELLO"_s, 1, u"ärö€😀"_s, "{\"Method\":\"HELLO\",\"Port\":1,\"User\":\"ärö€😀\"}\n"_ba);
    row("escapes", u"HELLO"_s, 1, u"a\"b\\c\n"_s, "{\"Method\":\"HELLO\",\"Port\":1,\"User\":\"a\\\"b\\\\c\\n\"}\n"_ba);
    row("other method", u"x"_s, 1, u"a"_s, "{\"Method\":\"x\",\"Port\":1,\"User\":\"a\"}\n"_ba);
    for (const int port : {0, 1, 2, 255, 256, 1023, 1024, 32767, 32768, 65534, 65535}) {
        row(qPrintable(u"port %1"_s.arg(port)), u"HELLO"_s, static_cast<quint16>(port), u"a"_s,
            "{\"Method\":\"HELLO\",\"Port\":" + QByteArray::number(port) + ",\"User\":\"a\"}\n");
    }
}

} // namespace

void TestAnnouncement::datagramIsWrittenToTheByte_data()
{
    addPorts();
}

void TestAnnouncement::datagramIsWrittenToTheByte()
{
    QFETCH(const QString, method);
    QFETCH(const quint16, port);
    QFETCH(const QString, user);
    QTEST(Announcement({method, port, user}).toDatagram(), "text");
}

void TestAnnouncement::datagramIsReadBack_data()
{
    addPorts();
}

void TestAnnouncement::datagramIsReadBack()
{
    QFETCH(const QByteArray, text);
    bool isJson = false;
    const std::optional<Announcement> read = Announcement::fromDatagram(text, &isJson);
    QVERIFY(isJson);
    QVERIFY(read.has_value());
    QTEST(read->method, "method");
    QTEST(read->port, "port");
    QTEST(read->user, "user");
}

void TestAnnouncement::decorationIsIgnored_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("no line end") << kExample.trimmed();
    QTest::newRow("white space") << " {\t\"Method\" :\r\n\"HELLO\" , \"Port\":40123 ,\"User\":\"alice\" } "_ba;
    QTest::newRow("other order") << "{\"User\":\"alice\",\"Port\":40123,\"Method\":\"HELLO\"}"_ba;
    QTest::newRow("more members")
        << "{\"A\":[{}],\"Method\":\"HELLO\",\"Port\":40123,\"User\":\"alice\",\"Z\":null}"_ba;
    QTest::newRow("text after it") << kExample + "and more";
    QTest::newRow("comment") << "/* a */" + kExample;
    QTest::newRow("escaped") << "{\"Method\":\"\\u0048ELLO\",\"Port\":40123,\"User\":\"\\u0061lice\"}"_ba;
    QTest::newRow("largest datagram") << kExample + QByteArray(65507 - kExample.size(), ' ');
}

void TestAnnouncement::decorationIsIgnored()
{
    QFETCH(const QByteArray, text);
    bool isJson = false;
    const std::optional<Announcement> read = Announcement::fromDatagram(text, &isJson);
    QVERIFY(isJson);
    QVERIFY(read.has_value());
    QCOMPARE(read->toDatagram(), kExample);
}

void TestAnnouncement::wrongShapeIsStillJson_data()
{
    QTest::addColumn<QByteArray>("text");
    const QByteArrayList wholes = {"null",
                                   "true",
                                   "0",
                                   "40123",
                                   "1.5",
                                   "\"\"",
                                   "\"HELLO\"",
                                   "[]",
                                   "{}",
                                   "[" + kExample + "]",
                                   "{\"a\":" + kExample + "}"};
    for (const QByteArray &whole : wholes) {
        QTest::newRow(whole.constData()) << whole;
    }
    const auto member = [](const char *key, const QByteArrayList &values) {
        const QMap<QByteArray, QByteArray> good = {{"Method", "\"HELLO\""}, {"Port", "40123"}, {"User", "\"alice\""}};
        for (const QByteArray &value : values) {
            QByteArrayList parts;
            for (auto it = good.cbegin(); it != good.cend(); ++it) {
                if (it.key() != key) {
                    parts << "\"" + it.key() + "\":" + it.value();
                } else if (!value.isEmpty()) {
                    parts << value;
                }
            }
            QTest::addRow("%s: %s", key, value.constData()) << "{" + parts.join(',') + "}";
        }
    };
    member("Method", {"", "\"method\":\"HELLO\"", "\"Method \":\"HELLO\"", "\"Method\":null", "\"Method\":1",
                      "\"Method\":true", "\"Method\":[\"HELLO\"]", "\"Method\":{}"});
    member("User", {"", "\"user\":\"alice\"", "\"User\":null", "\"User\":1", "\"User\":false", "\"User\":[\"alice\"]",
                    "\"User\":{\"alice\":1}"});
    member("Port", {"",
                    "\"port\":40123",
                    "\"Port\":null",
                    "\"Port\":true",
                    "\"Port\":\"40123\"",
                    "\"Port\":\"\"",
                    "\"Port\":[40123]",
                    "\"Port\":{}",
                    "\"Port\":40123.0",
                    "\"Port\":40123.5",
                    "\"Port\":4e4",
                    "\"Port\":4E+4",
                    "\"Port\":0.0",
                    "\"Port\":-1",
                    "\"Port\":-40123",
                    "\"Port\":65536",
                    "\"Port\":65537",
                    "\"Port\":105659",
                    "\"Port\":2147483648",
                    "\"Port\":4294967295",
                    "\"Port\":4294967296",
                    "\"Port\":4295007419",
                    "\"Port\":9223372036854775808",
                    "\"Port\":18446744073709551616",
                    "\"Port\":-9223372036854775808",
                    "\"Port\":1e300"});
}

void TestAnnouncement::wrongShapeIsStillJson()
{
    QFETCH(const QByteArray, text);
    bool isJson = false;
    QVERIFY(!Announcement::fromDatagram(text, &isJson).has_value());
    QVERIFY(isJson);
}

void TestAnnouncement::otherTextIsNotJson_data()
{
    QTest::addColumn<QByteArray>("text");
    const QByteArrayList texts = {"",
                                  " ",
                                  "\n",
                                  "{",
                                  "}",
                                  "[",
                                  "\"",
                                  "HELLO",
                                  "nul",
                                  "\xff\xfe",
                                  "\xef\xbb\xbf",
                                  "{'Method':'HELLO'}",
                                  "{\"Method\"}",
                                  "{\"Method\"=\"HELLO\"}",
                                  "{\"Method\":}",
                                  "{Method:1}",
                                  "{\"Method\":\"HELLO\",\"Port\":40123,\"User\":\"alice\",}",
                                  "\xef\xbb\xbf{\"Method\":\"HELLO\",\"Port\":40123,\"User\":\"alice\"}",
                                  "/*",
                                  "//"};
    for (const QByteArray &text : texts) {
        QTest::addRow("%s", text.toPercentEncoding().constData()) << text;
    }
    QTest::newRow("NUL before") << QByteArray(1, '\0') + kExample;
    QTest::newRow("deep array") << QByteArray(65507, '[');
    QTest::newRow("deep object") << QByteArray("{\"a\":").repeated(10000);
    QTest::newRow("largest garbage") << QByteArray(65507, '\xff');
}

void TestAnnouncement::otherTextIsNotJson()
{
    QFETCH(const QByteArray, text);
    bool isJson = true;
    QVERIFY(!Announcement::fromDatagram(text, &isJson).has_value());
    QVERIFY(!isJson);
}

void TestAnnouncement::truncatedDatagramIsNotJson()
{
    const qsizetype whole = kExample.indexOf('}') + 1;
    for (qsizetype length = 0; length < whole; ++length) {
        bool isJson = true;
        QVERIFY2(!Announcement::fromDatagram(kExample.first(length), &isJson).has_value(),
                 kExample.first(length).constData());
        QVERIFY2(!isJson, kExample.first(length).constData());
    }
}

ZARVO_TEST(TestAnnouncement)

#include "tst_announcement.moc"
