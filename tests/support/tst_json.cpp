// SPDX-License-Identifier: MIT
#include "support/json.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestJson : public QObject
{
    Q_OBJECT

private slots:
    void firstValueIsParsed_data();
    void firstValueIsParsed();
    void textThatIsNotJsonIsRefused_data();
    void textThatIsNotJsonIsRefused();
    void valuesAreWrittenCompactly_data();
    void valuesAreWrittenCompactly();
    void textIsKeptWhole_data();
    void textIsKeptWhole();
    void byteOrderMarkInAStringIsKept();
    void onlyStringsHaveText_data();
    void onlyStringsHaveText();
    void onlyObjectsHaveMembers_data();
    void onlyObjectsHaveMembers();
};

namespace {

constexpr int kMaxDepth = 1000;

QByteArray nested(int depth)
{
    return QByteArray(depth, '[') + QByteArray(depth, ']');
}

} // namespace

void TestJson::firstValueIsParsed_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("written");
    QTest::newRow("null") << "null"_ba
                          << "null\n"_ba;
    QTest::newRow("true") << "true"_ba
                          << "true\n"_ba;
    QTest::newRow("number") << "-12"_ba
                            << "-12\n"_ba;
    QTest::newRow("string") << "\"a\""_ba
                            << "\"a\"\n"_ba;
    QTest::newRow("array") << "[1, [2], {}]"_ba
                           << "[1,[2],{}]\n"_ba;
    QTest::newRow("object") << "{ \"a\" : 1 }"_ba
                            << "{\"a\":1}\n"_ba;
    QTest::newRow("space around") << " \t\r\n7\n "_ba
                                  << "7\n"_ba;
    QTest::newRow("block comment") << "/* a */ [1, /* b */ 2]"_ba
                                   << "[1,2]\n"_ba;
    QTest::newRow("line comment") << "// a\n[1 // b\n]"_ba
                                  << "[1]\n"_ba;
    QTest::newRow("comment after it") << "[1] // a"_ba
                                      << "[1]\n"_ba;
    QTest::newRow("second value after it") << "{\"a\":1}{\"b\":2}"_ba
                                           << "{\"a\":1}\n"_ba;
    QTest::newRow("junk after it") << "[1] ]x\xff"_ba
                                   << "[1]\n"_ba;
    QTest::newRow("escapes") << R"("\u00e4\n\"\\\/")"_ba << QByteArray("\"\xc3\xa4\\n\\\"\\\\/\"\n");
    QTest::newRow("surrogates") << R"("\ud83d\ude00")"_ba << QByteArray("\"\xf0\x9f\x98\x80\"\n");
    QTest::newRow("empty name, comma and brace in a string") << R"({"":",}\",}"})"_ba
                                                             << "{\"\":\",}\\\",}\"}\n"_ba;
    QTest::newRow("empty name, comma in a comment") << R"({"":1/*,*/ })"_ba
                                                    << "{\"\":1}\n"_ba;
    QTest::newRow("empty name, brace in a comment") << R"({"":1,/*}*/"a":[{}]})"_ba
                                                    << "{\"\":1,\"a\":[{}]}\n"_ba;
    QTest::newRow("empty name, comma and brace after it") << R"({"":1},})"_ba
                                                          << "{\"\":1}\n"_ba;
    QTest::newRow("empty string, comma and brace after it") << R"("",})"_ba
                                                            << "\"\"\n"_ba;
    QTest::newRow("as deep as it goes") << nested(kMaxDepth) << QByteArray(nested(kMaxDepth) + '\n');
    QTest::newRow("same member twice: the last") << R"({"a":1,"a":2})"_ba
                                                 << "{\"a\":2}\n"_ba;
}

void TestJson::firstValueIsParsed()
{
    QFETCH(const QByteArray, text);
    QFETCH(const QByteArray, written);
    Json::Value value("before");
    QVERIFY(parseJson(text, &value));
    QCOMPARE(writeJson(value), written);
}

void TestJson::textThatIsNotJsonIsRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("blanks") << "  "_ba;
    QTest::newRow("open object") << "{"_ba;
    QTest::newRow("open array") << "[1"_ba;
    QTest::newRow("open string") << "\"a"_ba;
    QTest::newRow("open comment") << "/* a"_ba;
    QTest::newRow("comment alone") << "// a"_ba;
    QTest::newRow("word") << "nope"_ba;
    QTest::newRow("half a word") << "tru"_ba;
    QTest::newRow("no colon") << "{\"a\" 1}"_ba;
    QTest::newRow("number as member name") << "{1:2}"_ba;
    QTest::newRow("bad escape") << R"("\x")"_ba;
    QTest::newRow("short escape") << R"("\u12")"_ba;
    QTest::newRow("binary") << QByteArray("\0\1\2\3", 4);
    QTest::newRow("trailing comma of an array") << "[1,]"_ba;
    QTest::newRow("trailing comma of an object") << "{\"a\":1,}"_ba;
    QTest::newRow("trailing comma behind an empty name") << R"({"":1,})"_ba;
    QTest::newRow("trailing comma behind an empty name, further in") << R"({"a":{"b":2,"":[1] ,} ,"c":2})"_ba;
    QTest::newRow("trailing comma behind an empty name, then a comment") << R"({"":1,/* } */})"_ba;
    QTest::newRow("trailing comma behind an empty name, then a line comment") << "{\"\":1,// x\n}"_ba;
    QTest::newRow("trailing comma behind an empty name, then a line that ends in CR") << "{\"\":1,//\r}"_ba;
    QTest::newRow("trailing comma inside") << "{\"a\":[1 , /* b */ ]}"_ba;
    QTest::newRow("comma alone") << "[,]"_ba;
    QTest::newRow("comma alone in an object") << "{,}"_ba;
    QTest::newRow("two commas") << "[1,,2]"_ba;
    QTest::newRow("byte order mark before") << "\xef\xbb\xbf[1]"_ba;
    QTest::newRow("byte order mark alone") << "\xef\xbb\xbf"_ba;
    QTest::newRow("byte order mark inside") << "[\xef\xbb\xbf]"_ba;
    QTest::newRow("one too deep") << nested(kMaxDepth + 1);
    QTest::newRow("deep and open") << QByteArray(65536, '[');
    QTest::newRow("deep objects") << QByteArray("{\"a\":").repeated(10000);
}

void TestJson::textThatIsNotJsonIsRefused()
{
    QFETCH(const QByteArray, text);
    Json::Value value("untouched");
    QVERIFY(!parseJson(text, &value));
    QVERIFY(value == Json::Value("untouched"));
    // The thread's reader keeps nothing of it for the next text.
    QVERIFY(parseJson("[1]", &value));
    QCOMPARE(writeJson(value), "[1]\n"_ba);
}

void TestJson::valuesAreWrittenCompactly_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("written");
    QTest::newRow("keys ascend") << R"({ "b" : 1 , "a" : [ 1 , 2 ] , "B" : null })"_ba
                                 << "{\"B\":null,\"a\":[1,2],\"b\":1}\n"_ba;
    QTest::newRow("empty object") << "{ }"_ba
                                  << "{}\n"_ba;
    QTest::newRow("empty array") << "[ ]"_ba
                                 << "[]\n"_ba;
    QTest::newRow("empty string") << "\"\""_ba
                                  << "\"\"\n"_ba;
    QTest::newRow("comments are gone") << "[ /* a */ 1 // b\n ]"_ba
                                       << "[1]\n"_ba;
    QTest::newRow("UTF-8 as it is") << QByteArray("[\"Gr\xc3\xbc\xc3\x9f\xe2\x82\xac\xf0\x9f\x98\x80\"]")
                                    << QByteArray("[\"Gr\xc3\xbc\xc3\x9f\xe2\x82\xac\xf0\x9f\x98\x80\"]\n");
    QTest::newRow("line feed is escaped") << R"(["a\nb"])"_ba
                                          << "[\"a\\nb\"]\n"_ba;
    QTest::newRow("NUL is escaped") << R"(["a\u0000b"])"_ba
                                    << "[\"a\\u0000b\"]\n"_ba;
    QTest::newRow("largest 64-bit number") << "[18446744073709551615]"_ba
                                           << "[18446744073709551615]\n"_ba;
    QTest::newRow("smallest 64-bit number") << "[-9223372036854775808]"_ba
                                            << "[-9223372036854775808]\n"_ba;
    QTest::newRow("fraction") << "[1.5]"_ba
                              << "[1.5]\n"_ba;
}

void TestJson::valuesAreWrittenCompactly()
{
    QFETCH(const QByteArray, text);
    QFETCH(const QByteArray, written);
    Json::Value value;
    QVERIFY(parseJson(text, &value));
    QCOMPARE(writeJson(value), written);
}

void TestJson::textIsKeptWhole_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << u""_s;
    QTest::newRow("plain") << u"hello"_s;
    QTest::newRow("NUL inside") << QString(u"a"_s + QChar(0) + u"b"_s);
    QTest::newRow("NUL alone") << QString(QChar(0));
    QTest::newRow("NUL at the end") << QString(u"a"_s + QChar(0));
    QTest::newRow("two to four bytes of UTF-8") << u"ä€\U0001F600"_s;
    QTest::newRow("control characters and quotes") << u"\t\n\r\x1b\"\\/"_s;
}

void TestJson::textIsKeptWhole()
{
    QFETCH(const QString, text);
    const Json::Value value = jsonString(text);
    QVERIFY(value.isString());
    QCOMPARE(stringFromJson(value), text);
    Json::Value read;
    QVERIFY(parseJson(writeJson(value), &read));
    QCOMPARE(stringFromJson(read), text);
}

void TestJson::byteOrderMarkInAStringIsKept()
{
    Json::Value value;
    QVERIFY(parseJson("\"\\ufeff2.0\"", &value));
    QCOMPARE(stringFromJson(value), u"\ufeff2.0"_s);
}

void TestJson::onlyStringsHaveText_data()
{
    QTest::addColumn<QByteArray>("text");
    for (const char *text :
         {"null", "true", "1", "1.5", "[]", "[\"a\"]", "{}", "{\"a\":\"b\"}", "18446744073709551615"}) {
        QTest::addRow("%s", text) << QByteArray(text);
    }
}

void TestJson::onlyStringsHaveText()
{
    QFETCH(const QByteArray, text);
    Json::Value value;
    QVERIFY(parseJson(text, &value));
    QCOMPARE(stringFromJson(value), QString());
}

void TestJson::onlyObjectsHaveMembers_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("has");
    QTest::addColumn<QByteArray>("member"); // the one with the name "id"
    QTest::newRow("there") << R"({"id":7,"x":8})"_ba << true << "7\n"_ba;
    QTest::newRow("there and null") << R"({"id":null})"_ba << true << "null\n"_ba;
    QTest::newRow("there and an object") << R"({"id":{"id":1}})"_ba << true << "{\"id\":1}\n"_ba;
    QTest::newRow("not there") << R"({"x":8})"_ba << false << "null\n"_ba;
    QTest::newRow("shorter name") << R"({"i":8})"_ba << false << "null\n"_ba;
    QTest::newRow("longer name") << R"({"ids":8})"_ba << false << "null\n"_ba;
    QTest::newRow("name with NUL") << R"({"id\u0000":8})"_ba << false << "null\n"_ba;
    QTest::newRow("other case") << R"({"ID":8})"_ba << false << "null\n"_ba;
    QTest::newRow("empty object") << "{}"_ba << false << "null\n"_ba;
    QTest::newRow("null") << "null"_ba << false << "null\n"_ba;
    QTest::newRow("array") << R"(["id"])"_ba << false << "null\n"_ba;
    QTest::newRow("string") << "\"id\""_ba << false << "null\n"_ba;
    QTest::newRow("number") << "1"_ba << false << "null\n"_ba;
}

void TestJson::onlyObjectsHaveMembers()
{
    QFETCH(const QByteArray, text);
    QFETCH(const bool, has);
    Json::Value value;
    QVERIFY(parseJson(text, &value));
    QCOMPARE(hasMember(value, "id"), has);
    QTEST(writeJson(::member(value, "id")), "member");
}

ZARVO_TEST(TestJson)

#include "tst_json.moc"
