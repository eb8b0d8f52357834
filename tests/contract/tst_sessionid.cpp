// SPDX-License-Identifier: MIT
#include "contract/sessionid.h"
#include "tests/testmain.h"

#include <QRegularExpression>
#include <QSet>
#include <QTest>

using namespace Qt::StringLiterals;

class TestSessionId : public QObject
{
    Q_OBJECT

private slots:
    void onlyThirtyTwoHexadecimalDigitsAreAnId_data();
    void onlyThirtyTwoHexadecimalDigitsAreAnId();
    void directoryIsNamedAfterTheId_data();
    void directoryIsNamedAfterTheId();
    void idIsReadBackFromThePath_data();
    void idIsReadBackFromThePath();
    void idSurvivesTheWayThroughTheDirectory();
    void newIdsAreValidLowerCaseAndDifferent();
};

namespace {

const QString kDigits = u"0123456789abcdef0123456789ABCDEF"_s;

} // namespace

void TestSessionId::onlyThirtyTwoHexadecimalDigitsAreAnId_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("isId");
    QTest::newRow("mixed case") << kDigits << true;
    QTest::newRow("all upper") << u"ABCDEFABCDEFABCDEFABCDEFABCDEFAB"_s << true;
    QTest::newRow("all lower") << u"abcdefabcdefabcdefabcdefabcdefab"_s << true;
    QTest::newRow("all digits") << u"00000000000000000000000000000000"_s << true;
    QTest::newRow("null") << QString() << false;
    QTest::newRow("empty") << u""_s << false;
    QTest::newRow("31 digits") << kDigits.left(31) << false;
    QTest::newRow("33 digits") << QString(kDigits + u'0') << false;
    QTest::newRow("64 digits") << QString(kDigits + kDigits) << false;
    QTest::newRow("with the directory's prefix") << QString(u"C-"_s + kDigits) << false;
    QTest::newRow("blank before") << QString(u' ' + kDigits) << false;
    QTest::newRow("blank behind") << QString(kDigits + u' ') << false;
    QTest::newRow("line feed behind") << QString(kDigits + u'\n') << false;
    QTest::newRow("carriage return and line feed behind") << QString(kDigits + u"\r\n"_s) << false;
    QTest::newRow("second line") << QString(u"x\n"_s + kDigits) << false;
    QTest::newRow("NUL behind") << QString(kDigits + QChar(0)) << false;
    for (const char16_t bad : {u'g', u'G', u'-', u'/', u'.', u' ', u'\n', u':', u'@', u'`', u'\u0660', u'\uff11'}) {
        QString text = kDigits;
        text[15] = bad;
        QTest::addRow("U+%04x inside", static_cast<unsigned>(bad)) << text << false;
        text = kDigits;
        text[31] = bad;
        QTest::addRow("U+%04x at the end", static_cast<unsigned>(bad)) << text << false;
    }
}

void TestSessionId::onlyThirtyTwoHexadecimalDigitsAreAnId()
{
    QFETCH(QString, text);
    QTEST(isValidSessionId(text), "isId");
}

void TestSessionId::directoryIsNamedAfterTheId_data()
{
    QTest::addColumn<QString>("root");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("directory");
    QTest::newRow("plain") << u"/a/sessions"_s << kDigits << u"/a/sessions/C-0123456789abcdef0123456789ABCDEF"_s;
    QTest::newRow("slash at the end") << u"/a/sessions/"_s << u"0a"_s << u"/a/sessions/C-0a"_s;
    QTest::newRow("relative root") << u"sessions"_s << u"0a"_s << u"sessions/C-0a"_s;
    QTest::newRow("id is not checked") << u"/a"_s << u"no id"_s << u"/a/C-no id"_s;
    QTest::newRow("placeholder in the root") << u"/a/%1"_s << u"0a"_s << u"/a/%1/C-0a"_s;
}

void TestSessionId::directoryIsNamedAfterTheId()
{
    QFETCH(QString, root);
    QFETCH(QString, id);
    QTEST(sessionDirectory(root, id), "directory");
}

void TestSessionId::idIsReadBackFromThePath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("id");
    const auto add = [](const char *name, const QString &path, const QString &id) {
        QTest::newRow(name) << path << id;
    };
    add("absolute", u"/a/b/C-"_s + kDigits, kDigits);
    add("name alone", u"C-"_s + kDigits, kDigits);
    add("suffix", u"/a/C-"_s + kDigits + u".old"_s, kDigits);
    add("two suffixes", u"/a/C-"_s + kDigits + u".tar.gz"_s, kDigits);
    add("full stop alone", u"/a/C-"_s + kDigits + u'.', kDigits);
    add("dots in the parent", u"/a.b/C-"_s + kDigits, kDigits);
    add("lower-case c", u"/a/c-"_s + kDigits, QString());
    add("without prefix", u"/a/"_s + kDigits, QString());
    add("31 digits", u"/a/C-"_s + kDigits.left(31), QString());
    add("33 digits", u"/a/C-"_s + kDigits + u'0', QString());
    add("31 digits and a suffix", u"/a/C-"_s + kDigits.left(31) + u".0"_s, QString());
    add("not a digit", u"/a/C-"_s + kDigits.left(31) + u'g', QString());
    add("line feed behind", u"/a/C-"_s + kDigits + u'\n', QString());
    add("something before", u"/a/xC-"_s + kDigits, QString());
    add("hidden", u"/a/.C-"_s + kDigits, QString());
    add("a file inside", u"/a/C-"_s + kDigits + u"/name"_s, QString());
    add("slash at the end", u"/a/C-"_s + kDigits + u'/', QString());
    add("empty", QString(), QString());
}

void TestSessionId::idIsReadBackFromThePath()
{
    QFETCH(QString, path);
    QFETCH(QString, id);
    const QString read = sessionIdFromPath(path);
    QCOMPARE(read, id);
    QCOMPARE(read.isNull(), id.isNull());
}

void TestSessionId::idSurvivesTheWayThroughTheDirectory()
{
    QCOMPARE(sessionIdFromPath(sessionDirectory(u"/a"_s, kDigits)), kDigits);
    QVERIFY(sessionDirectory(u"/a"_s, kDigits.toLower()) != sessionDirectory(u"/a"_s, kDigits.toUpper()));
}

void TestSessionId::newIdsAreValidLowerCaseAndDifferent()
{
    QSet<QString> ids;
    for (int count = 0; count < 100; ++count) {
        QString id;
        QVERIFY(newSessionId(&id));
        QVERIFY2(isValidSessionId(id), qPrintable(id));
        QCOMPARE(id, id.toLower());
        ids.insert(id);
    }
    QCOMPARE(ids.size(), 100);
}

ZARVO_TEST(TestSessionId)

#include "tst_sessionid.moc"
