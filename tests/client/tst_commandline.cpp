// SPDX-License-Identifier: MIT
#include "client/commandline.h"
#include "tests/testmain.h"

#include <QProcess>
#include <QTest>

using namespace Qt::StringLiterals;

class TestCommandLine : public QObject
{
    Q_OBJECT

private slots:
    void oneIsTakenAsItIs() { QCOMPARE(commandLine({u"a 'b' | c $d"_s}), u"a 'b' | c $d"_s); }

    /** Whatever the words are, a shell reads them back. */
    void shellReadsTheSame()
    {
        const QStringList words = {u"a b"_s,  {},       u"it's"_s, u"$HOME `x` \\ \""_s, u"*?[]{}~#!;&|<>()"_s,
                                   u"-x=y"_s, u"ä統"_s, u"~/x"_s,  u"two\nlines"_s};
        const QString line = commandLine(QStringList{u"printf"_s, u"%s\\0"_s} + words);
        QProcess shell;
        shell.start(u"/bin/sh"_s, {u"-c"_s, line});
        QVERIFY(shell.waitForFinished());
        QCOMPARE(QString::fromUtf8(shell.readAllStandardOutput()).split(QChar(u'\0')), words + QStringList{QString()});
    }

    void geometries_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("isOne");
        QTest::newRow("size") << u"1280x800"_s << true;
        QTest::newRow("rootless") << u"rootless"_s << true;
        QTest::newRow("smallest") << u"1x1"_s << true;
        QTest::newRow("zero") << u"0x1"_s << false;
        QTest::newRow("six digits") << u"100000x1"_s << false;
        QTest::newRow("sign") << u"+1x1"_s << false;
        QTest::newRow("capital") << u"1X1"_s << false;
        QTest::newRow("three") << u"1x1x24"_s << false;
        QTest::newRow("line feed") << u"1x1\n"_s << false;
        QTest::newRow("other digits") << u"１x１"_s << false;
        QTest::newRow("empty") << QString() << false;
    }
    void geometries()
    {
        QFETCH(QString, text);
        QTEST(isGeometry(text), "isOne");
    }
};

ZARVO_TEST(TestCommandLine)
#include "tst_commandline.moc"
