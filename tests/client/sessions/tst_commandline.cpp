// SPDX-License-Identifier: MIT
#include "client/sessions/commandline.h"
#include "tests/testmain.h"

#include <QProcess>
#include <QTest>

using namespace Qt::StringLiterals;

class TestCommandLine : public QObject
{
    Q_OBJECT

private slots:
    void singleArgumentIsACommandLine() { QCOMPARE(commandLine({u"a 'b' | c $d"_s}), u"a 'b' | c $d"_s); }

    /** A shell must read back the same words, whatever they contain. */
    void shellReadsTheSameWords()
    {
        const QStringList words = {u"a b"_s,  {},       u"it's"_s, u"$HOME `x` \\ \""_s, u"*?[]{}~#!;&|<>()"_s,
                                   u"-x=y"_s, u"ä統"_s, u"~/x"_s,  u"two\nlines"_s};
        const QString line = commandLine(QStringList{u"printf"_s, u"%s\\0"_s} + words);
        QProcess shell;
        shell.start(u"/bin/sh"_s, {u"-c"_s, line});
        QVERIFY(shell.waitForFinished());
        QCOMPARE(QString::fromUtf8(shell.readAllStandardOutput()).split(QChar(u'\0')), words + QStringList{QString()});
    }

    /** The first of several words is the program, even if a shell would treat it as syntax. */
    void firstWordIsTheProgram_data()
    {
        QTest::addColumn<QString>("word");
        for (const char *word : {"if", "time", "for", "A=b", "./x=y", "function"}) {
            QTest::newRow(word) << QString::fromLatin1(word);
        }
    }
    void firstWordIsTheProgram()
    {
        QFETCH(QString, word);
        QCOMPARE(commandLine({word, u"x"_s}), u"'%1' x"_s.arg(word));
        QCOMPARE(commandLine({u"env"_s, word}), u"env "_s + word);
    }

    void geometryIsChecked_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("isOne");
        QTest::newRow("size") << u"1280x800"_s << true;
        QTest::newRow("rootless") << u"rootless"_s << true;
        QTest::newRow("smallest") << u"10x10"_s << true;
        QTest::newRow("too narrow") << u"9x10"_s << false;
        QTest::newRow("widest") << u"16384x4096"_s << true;
        QTest::newRow("too wide") << u"16385x10"_s << false;
        QTest::newRow("too many pixels") << u"16384x4097"_s << false;
        QTest::newRow("zero") << u"0x10"_s << false;
        QTest::newRow("six digits") << u"100000x10"_s << false;
        QTest::newRow("sign") << u"+10x10"_s << false;
        QTest::newRow("capital letter") << u"10X10"_s << false;
        QTest::newRow("three numbers") << u"10x10x24"_s << false;
        QTest::newRow("line feed") << u"10x10\n"_s << false;
        QTest::newRow("full-width digits") << u"１０x１０"_s << false;
        QTest::newRow("empty") << QString() << false;
    }
    void geometryIsChecked()
    {
        QFETCH(QString, text);
        QTEST(isGeometry(text), "isOne");
    }
};

ZARVO_TEST(TestCommandLine)
#include "tst_commandline.moc"
