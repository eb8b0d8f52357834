// SPDX-License-Identifier: MIT
#include "support/pathtemplate.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/testmain.h"

#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestPathTemplate : public QObject
{
    Q_OBJECT

private slots:
    void onlyPlaceholdersAreReplaced_data();
    void onlyPlaceholdersAreReplaced();
    void insertedValuesAreNotExpanded();
    void unsetUserBecomesEmpty();
    void valuesAreReadAtEveryCall();

private:
    /** Has to exist, because Qt ignores a TMPDIR that does not. */
    [[nodiscard]] QString temporaryPath() const { return QFileInfo(dir.path()).canonicalFilePath(); }

    QTemporaryDir dir;
};

void TestPathTemplate::onlyPlaceholdersAreReplaced_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("output");
    const QString host = QHostInfo::localHostName();
    QVERIFY(!host.isEmpty());
    QTest::newRow("null") << QString() << QString();
    QTest::newRow("empty") << u""_s << u""_s;
    QTest::newRow("no placeholder") << u"/var/lib/zarvo|x"_s << u"/var/lib/zarvo|x"_s;
    QTest::newRow("home") << u"@HOME@"_s << u"/home/anna"_s;
    QTest::newRow("temp") << u"@TEMP@"_s << temporaryPath();
    QTest::newRow("user") << u"@USER@"_s << u"anna"_s;
    QTest::newRow("host") << u"@HOST@"_s << host;
    QTest::newRow("default user path") << u"/home/anna/.zarvo_server/@HOST@"_s
                                       << QString(u"/home/anna/.zarvo_server/"_s + host);
    QTest::newRow("user directly before host") << u"@USER@@HOST@"_s << QString(u"anna"_s + host);
    QTest::newRow("text around and between") << u"a@USER@b@HOME@c"_s << u"aannab/home/annac"_s;
    QTest::newRow("the same one twice") << u"@USER@|@USER@"_s << u"anna|anna"_s;
    QTest::newRow("shared delimiter: the first wins") << u"@USER@HOME@"_s << u"annaHOME@"_s;
    QTest::newRow("delimiter before") << u"@@USER@"_s << u"@anna"_s;
    QTest::newRow("delimiter after it") << u"@USER@@"_s << u"anna@"_s;
    QTest::newRow("lower case") << u"@home@/@user@"_s << u"@home@/@user@"_s;
    QTest::newRow("first letter in lower case") << u"@uSER@"_s << u"@uSER@"_s;
    QTest::newRow("no end") << u"@USER"_s << u"@USER"_s;
    QTest::newRow("no beginning") << u"USER@"_s << u"USER@"_s;
    QTest::newRow("unknown name") << u"@PATH@"_s << u"@PATH@"_s;
    QTest::newRow("no name") << u"@@"_s << u"@@"_s;
    QTest::newRow("blank inside") << u"@USER @"_s << u"@USER @"_s;
    QTest::newRow("shell forms") << u"~/$USER/${HOME}/%1"_s << u"~/$USER/${HOME}/%1"_s;
    QTest::newRow("bars between") << u"|@USER@|(@TEMP@)"_s << QString(u"|anna|("_s + temporaryPath() + u')');
    QTest::newRow("not only Latin") << u"Привет@USER@\U0001F600"_s << u"Приветanna\U0001F600"_s;
    QTest::newRow("line feed") << u"\n@USER@\n"_s << u"\nanna\n"_s;
}

void TestPathTemplate::onlyPlaceholdersAreReplaced()
{
    QFETCH(const QString, input);
    QFETCH(const QString, output);
    const EnvironmentVariable home("HOME", "/home/anna");
    const EnvironmentVariable temp("TMPDIR", QFile::encodeName(temporaryPath()));
    const EnvironmentVariable user("USER", "anna");
    QCOMPARE(expandPathTemplate(input), output);
}

void TestPathTemplate::insertedValuesAreNotExpanded()
{
    const EnvironmentVariable home("HOME", "/home/@USER@");
    const EnvironmentVariable user("USER", "@HOME@");
    QCOMPARE(expandPathTemplate(u"@HOME@:@USER@:@HOME@"_s), u"/home/@USER@:@HOME@:/home/@USER@"_s);
}

void TestPathTemplate::unsetUserBecomesEmpty()
{
    const EnvironmentVariable user("USER");
    QCOMPARE(expandPathTemplate(u"a@USER@b"_s), u"ab"_s);
    QCOMPARE(expandPathTemplate(u"@USER@"_s), QString());
}

void TestPathTemplate::valuesAreReadAtEveryCall()
{
    const EnvironmentVariable first("USER", "anna");
    QCOMPARE(expandPathTemplate(u"@USER@"_s), u"anna"_s);
    const EnvironmentVariable second("USER", "bert");
    QCOMPARE(expandPathTemplate(u"@USER@"_s), u"bert"_s);
}

ZARVO_TEST(TestPathTemplate)

#include "tst_pathtemplate.moc"
