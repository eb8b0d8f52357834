// SPDX-License-Identifier: MIT
#include "client/terminal/textwidth.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestTextWidth : public QObject
{
    Q_OBJECT

private slots:
    void displayWidthCountsColumns_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("width");
        QTest::newRow("empty") << QString() << 0;
        QTest::newRow("letters") << u"abc"_s << 3;
        QTest::newRow("umlaut") << u"ä"_s << 1;
        QTest::newRow("combining") << u"a\u0308b"_s << 2;
        QTest::newRow("wide") << u"統合"_s << 4;
        QTest::newRow("last before the wide block") << u"\u10FF"_s << 1;
        QTest::newRow("first of the wide block") << u"\u1100"_s << 2;
        QTest::newRow("last of the wide block") << u"\u115F"_s << 2;
        QTest::newRow("combining vowel after it") << u"\u1160"_s << 0;
        QTest::newRow("single wide symbol") << u"\u231A"_s << 2;
        QTest::newRow("combining mark") << u"\u0E01\u0E31"_s << 1;
        QTest::newRow("full width") << u"Ａ"_s << 2;
        QTest::newRow("half width") << u"ｱ"_s << 1;
        QTest::newRow("surrogate pair") << u"😀"_s << 2;
        QTest::newRow("lone surrogate") << QString(QChar(0xD83D)) << 1;
        QTest::newRow("joiner") << u"a\u200Db"_s << 2;
    }
    void displayWidthCountsColumns()
    {
        QFETCH(QString, text);
        QTEST(displayWidth(text), "width");
    }

    void paddedFillsWithBlanks()
    {
        QCOMPARE(padded(u"統"_s, 4), u"統  "_s);
        QCOMPARE(padded(u"long"_s, 2), u"long"_s);
    }

    void elidedCutsAtTheWidth_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("width");
        QTest::addColumn<QString>("cut");
        QTest::newRow("fits") << u"abc"_s << 3 << u"abc"_s;
        QTest::newRow("one less") << u"abc"_s << 2 << u"a…"_s;
        QTest::newRow("one column") << u"abc"_s << 1 << u"…"_s;
        QTest::newRow("none") << u"abc"_s << 0 << QString();
        QTest::newRow("wide character that fits by half") << u"統合統"_s << 4 << u"統…"_s;
        QTest::newRow("surrogate pairs are not split") << u"😀😀😀"_s << 5 << u"😀😀…"_s;
    }
    void elidedCutsAtTheWidth()
    {
        QFETCH(QString, text);
        QFETCH(int, width);
        const QString cut = elided(text, width);
        QTEST(cut, "cut");
        QVERIFY(displayWidth(cut) <= width);
    }

    void controlCharactersAreReplaced()
    {
        QCOMPARE(printable(u"plain ä 統"_s), u"plain ä 統"_s);
        for (const char16_t code : {0x00, 0x07, 0x0A, 0x1B, 0x7F, 0x80, 0x9B, 0x9F, 0x2028, 0x202E, 0x2066}) {
            QCOMPARE(printable(QString(QChar(code))), QString(QChar(QChar::ReplacementCharacter)));
        }
        QCOMPARE(printable(QString(QChar(0xA0))), QString(QChar(0xA0)));
    }
};

ZARVO_TEST(TestTextWidth)
#include "tst_textwidth.moc"
