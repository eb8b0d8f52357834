// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "engine/launch.h"
#include "tests/engine/launchfixture.h"
#include "tests/testmain.h"

#include <QTemporaryFile>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestApplicationStart : public QObject, private LaunchFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void applicationGetsTheCommandAsOneArgument_data();
    void applicationGetsTheCommandAsOneArgument();
    void applicationWorksInTheDirectory();
    void applicationInheritsNothingButTheStandardStreams();
    void applicationLogIsEmptiedBeforeTheStart();
    void applicationLogThatCannotBeWrittenFails();
    void applicationThatCannotBeStartedFails();
    void applicationNeedsADirectory();

private:
    [[nodiscard]] Session sessionInDirectory() const;
};

Session TestApplicationStart::sessionInDirectory() const
{
    QDir().mkpath(directory);
    Session made;
    made.directory = directory;
    return made;
}

void TestApplicationStart::applicationGetsTheCommandAsOneArgument_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("word") << u"xterm"_s;
    QTest::newRow("blanks") << u"  xterm -e  top "_s;
    QTest::newRow("what a shell would take apart") << u"sh -c 'echo \"$HOME\"; id' > out & `x` \\ *"_s;
    QTest::newRow("option") << u"--help"_s;
    QTest::newRow("nothing") << u""_s;
    QTest::newRow("lines") << u"one\ntwo"_s;
    QTest::newRow("beyond ASCII") << u"\u00e4\u20ac\U0001f427"_s;
}

void TestApplicationStart::applicationGetsTheCommandAsOneArgument()
{
    QFETCH(QString, command);
    programs->add(u"start-app"_s, record(u"arguments"_s, u"{ printf '%s ' $#; printf '[%s]' \"$@\"; }"_s));
    QCOMPARE(startApplication(sessionInDirectory(), command), 0);
    QVERIFY(waitForFile(programs->filePath(u"arguments"_s)));
    // Compared as bytes, which do not depend on the locale of the tests.
    QCOMPARE(recorded(u"arguments"_s), "1 [" + QFile::encodeName(command) + ']');
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestApplicationStart::applicationWorksInTheDirectory()
{
    programs->add(u"start-app"_s, record(u"cwd"_s, u"pwd -P"_s));
    QCOMPARE(startApplication(sessionInDirectory(), u"xterm"_s), 0);
    QVERIFY(waitForFile(programs->filePath(u"cwd"_s)));
    QCOMPARE(QString::fromUtf8(recorded(u"cwd"_s)), QDir(directory).canonicalPath() + u'\n');
}

void TestApplicationStart::applicationInheritsNothingButTheStandardStreams()
{
    keepInheritedDescriptors();
    QTemporaryFile open;
    QVERIFY(open.open());
    programs->add(u"start-app"_s, descriptorsScript());
    QCOMPARE(startApplication(sessionInDirectory(), u"xterm"_s), 0);
    QVERIFY(waitForFile(programs->filePath(u"descriptors"_s)));
    QCOMPARE(recorded(u"descriptors"_s), QByteArray(" 0 1 2"));
}

void TestApplicationStart::applicationLogIsEmptiedBeforeTheStart()
{
    programs->add(u"start-app"_s, record(u"size"_s, u"stat -c '%s %a' app_log"_s));
    const Session made = sessionInDirectory();
    for (const QByteArray &earlier : {QByteArray(), QByteArray("of an earlier application")}) {
        if (!earlier.isNull()) {
            putFile(file(u"app_log"_s), earlier);
            QVERIFY(::chmod(QFile::encodeName(file(u"app_log"_s)).constData(), 0666) == 0);
        }
        QFile::remove(programs->filePath(u"size"_s));
        QCOMPARE(startApplication(made, u"xterm"_s), 0);
        QVERIFY(waitForFile(programs->filePath(u"size"_s)));
        QCOMPARE(recorded(u"size"_s), QByteArray("0 600\n"));
        QCOMPARE(files(), QStringList{u"app_log"_s});
    }
}

void TestApplicationStart::applicationLogThatCannotBeWrittenFails()
{
    programs->remove(u"start-app"_s);
    const Session made = sessionInDirectory();
    QVERIFY(QDir().mkpath(file(u"app_log"_s)));
    QCOMPARE(startApplication(made, u"xterm"_s), WriteFailed);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to open the file \"%1\": Is a directory"_s.arg(file(u"app_log"_s))});
}

void TestApplicationStart::applicationThatCannotBeStartedFails()
{
    programs->remove(u"start-app"_s);
    QCOMPARE(startApplication(sessionInDirectory(), u"xterm"_s), ApplicationFailed);
    // The misspelling is part of the fixed text.
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to start the applicaion in the directory \"%1\""_s.arg(directory)});
    QCOMPARE(contentOf(file(u"app_log"_s)), QByteArray(""));
}

void TestApplicationStart::applicationNeedsADirectory()
{
    programs->remove(u"start-app"_s);
    QCOMPARE(startApplication(Session(), u"xterm"_s), NotInitialized);
    QCOMPARE(logger->takeLines(), QStringList());
}

ZARVO_TEST(TestApplicationStart)

#include "tst_applicationstart.moc"
