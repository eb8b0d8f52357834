// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "engine/launch.h"
#include "tests/engine/launchfixture.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/testmain.h"

#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryFile>

#include <utility>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestLaunch : public QObject, private LaunchFixture
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void directoryIsCreatedWithItsParents();
    void sessionIsDescribedInPrivateFiles_data();
    void sessionIsDescribedInPrivateFiles();
    void earlierFilesAreReplacedAndMadePrivate();
    void authorityIsMadeUnderBothNames();
    void everySessionHasItsOwnCookie();
    void agentGetsTheRequestAndItsPort_data();
    void agentGetsTheRequestAndItsPort();
    void agentWorksInTheDirectory();
    void agentInheritsNothingButTheStandardStreams();
    void agentOutlivesTheServer();
    void agentSeesTheWholeDescription();
    void recordIsFilled();
    void firstOpenDisplayIsTaken();

    void logOfAnEarlierRunIsSetAside();
    void pidOfAnEarlierRunIsRemoved();
    void locksOfAnEarlierRunDoNotBlock();
    void logOfTheLastRunReplacesTheOneBefore();
    void newDirectoryHasNoEarlierRun();

    void withoutDisplayNothingIsCreated();
    void directoryThatCannotBeCreatedFails();
    void fileThatCannotBeWrittenFails_data();
    void fileThatCannotBeWrittenFails();
    void missingXauthFails();
    void failedAuthorityFails();
    void failedSecondAuthorityIsOnlyLogged();
    void agentThatCannotBeStartedFails_data();
    void agentThatCannotBeStartedFails();
    void agentWhosePidCannotBeWrittenRunsOn();

private:
    int start(const QString &geometry = u"desktop"_s, const QString &name = u"xterm"_s);

    QTemporaryDir temporary; ///< the system's temporary directory for this test
    QByteArray previousTemporary;
    std::unique_ptr<ReservedDisplays> displays;
    Session session;
    QList<qint32> agents; ///< those that a test has started
};

namespace {

constexpr auto kUntouched = "untouched"_L1;

QString hostName()
{
    char name[256] = {};
    ::gethostname(name, sizeof name - 1);
    return QString::fromLocal8Bit(name);
}

} // namespace

void TestLaunch::initTestCase()
{
    // Stale sockets of X servers on this machine would make displays look used.
    previousTemporary = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(temporary.path()));
}

void TestLaunch::cleanupTestCase()
{
    if (previousTemporary.isEmpty()) {
        qunsetenv("TMPDIR");
    } else {
        qputenv("TMPDIR", previousTemporary);
    }
}

void TestLaunch::init()
{
    setUp();
    displays = std::make_unique<ReservedDisplays>();
    session = Session();
    session.directory = kUntouched;
}

void TestLaunch::cleanup()
{
    // The agents must end before their folder is removed. Long-running ones end with this file.
    QFile::remove(programs->filePath(u"alive"_s));
    for (const qint32 agent : std::as_const(agents)) {
        QVERIFY(QTest::qWaitFor([agent] { return !isRunning(agent); }, 20000));
    }
    agents.clear();
    displays.reset();
    tearDown();
}

int TestLaunch::start(const QString &geometry, const QString &name)
{
    const int code = startSession(&session, directory, displays->first(), displays->end(), geometry, name);
    if (code == SessionOk) {
        agents.append(session.monitorPid);
    }
    return code;
}

void TestLaunch::directoryIsCreatedWithItsParents()
{
    QVERIFY(!QFile::exists(folder->filePath(u"sessions"_s)));
    QCOMPARE(start(), 0);
    QVERIFY(QDir(directory).exists());
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestLaunch::sessionIsDescribedInPrivateFiles_data()
{
    QTest::addColumn<QString>("geometry");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("windowModeFile");
    QTest::addColumn<QByteArray>("nameFile");
    QTest::newRow("rootless") << u"rootless"_s << u"xterm"_s << QByteArray("rootless") << QByteArray("xterm");
    QTest::newRow("size") << u"1024x768"_s << u"xterm"_s << QByteArray("desktop") << QByteArray("xterm");
    QTest::newRow("capital") << u"Rootless"_s << u"xterm"_s << QByteArray("desktop") << QByteArray("xterm");
    QTest::newRow("blank behind") << u"rootless "_s << u"xterm"_s << QByteArray("desktop") << QByteArray("xterm");
    QTest::newRow("no mode") << QString() << u"xterm"_s << QByteArray("desktop") << QByteArray("xterm");
    QTest::newRow("no name") << u"rootless"_s << QString() << QByteArray("rootless") << QByteArray("");
    QTest::newRow("words") << u"desktop"_s << u" two  words\n"_s << QByteArray("desktop")
                           << QByteArray(" two  words\n");
    QTest::newRow("beyond ASCII") << u"desktop"_s << u"\u00e4\u20ac\U0001f427"_s << QByteArray("desktop")
                                  << QByteArray("\xc3\xa4\xe2\x82\xac\xf0\x9f\x90\xa7");
}

void TestLaunch::sessionIsDescribedInPrivateFiles()
{
    QFETCH(QString, geometry);
    QFETCH(QString, name);
    // The umask allows everything, so that only the code can make the files private.
    const mode_t previous = ::umask(0);
    const int code = start(geometry, name);
    ::umask(previous);

    QCOMPARE(code, 0);
    QCOMPARE(contentOf(file(u"display"_s)), QByteArray::number(displays->first()));
    QTEST(contentOf(file(u"window_mode"_s)), "windowModeFile");
    QTEST(contentOf(file(u"name"_s)), "nameFile");
    QCOMPARE(contentOf(file(u"info"_s)), QByteArray("{\n}"));
    QCOMPARE(contentOf(file(u"monitor_pid"_s)), QByteArray::number(session.monitorPid));
    for (const auto &described : {u"display"_s, u"window_mode"_s, u"name"_s, u"info"_s, u"monitor_pid"_s}) {
        QCOMPARE(modeOf(file(described)), 0600);
    }
    QCOMPARE(files(),
             QStringList({u"authority"_s, u"display"_s, u"info"_s, u"monitor_pid"_s, u"name"_s, u"window_mode"_s}));
}

void TestLaunch::earlierFilesAreReplacedAndMadePrivate()
{
    QVERIFY(QDir().mkpath(directory));
    const QStringList described = {u"display"_s, u"window_mode"_s, u"name"_s, u"info"_s, u"monitor_pid"_s};
    for (const QString &name : described) {
        putFile(file(name), QByteArray(100, 'x'));
        QVERIFY(::chmod(QFile::encodeName(file(name)).constData(), 0666) == 0);
    }
    QCOMPARE(start(), 0);
    QCOMPARE(contentOf(file(u"display"_s)), QByteArray::number(displays->first()));
    QCOMPARE(contentOf(file(u"window_mode"_s)), QByteArray("desktop"));
    QCOMPARE(contentOf(file(u"name"_s)), QByteArray("xterm"));
    QCOMPARE(contentOf(file(u"info"_s)), QByteArray("{\n}"));
    QCOMPARE(contentOf(file(u"monitor_pid"_s)), QByteArray::number(session.monitorPid));
    for (const QString &name : described) {
        QCOMPARE(modeOf(file(name)), 0600);
    }
}

void TestLaunch::authorityIsMadeUnderBothNames()
{
    QCOMPARE(start(), 0);
    const QString calls = QString::fromUtf8(recorded(u"xauth_calls"_s));
    const QRegularExpression cookies(u"\\[([0-9a-f]{32})\\]\n"_s);
    const QString cookie = cookies.match(calls).captured(1);
    QCOMPARE(cookie.size(), 32);
    QCOMPARE(calls, u"[-f][%1][add][unix:%2][MIT-MAGIC-COOKIE-1][%4]\n"
                    "[-f][%1][add][%3:%2][MIT-MAGIC-COOKIE-1][%4]\n"_s.arg(file(u"authority"_s))
                        .arg(displays->first())
                        .arg(hostName(), cookie));
}

void TestLaunch::everySessionHasItsOwnCookie()
{
    const QRegularExpression cookies(u"\\[([0-9a-f]{32})\\]\n"_s);
    QCOMPARE(start(), 0);
    QCOMPARE(start(), 0);
    const QStringList calls = QString::fromUtf8(recorded(u"xauth_calls"_s)).split(u'\n');
    QCOMPARE(calls.size(), 5);
    QVERIFY(calls[0] != calls[2]);
    QCOMPARE(QString(calls[0]).remove(QRegularExpression(u"\\[[0-9a-f]{32}\\]$"_s)),
             QString(calls[2]).remove(QRegularExpression(u"\\[[0-9a-f]{32}\\]$"_s)));
}

void TestLaunch::agentGetsTheRequestAndItsPort_data()
{
    QTest::addColumn<QString>("geometry");
    QTest::newRow("rootless") << u"rootless"_s;
    QTest::newRow("size") << u"1024x768"_s;
    QTest::newRow("capital") << u"Rootless"_s;
    QTest::newRow("nothing") << u""_s;
    QTest::newRow("blanks") << u" two words "_s;
    QTest::newRow("what a shell would take apart") << u"$(id) `id` 'a' \"b\" \\ *"_s;
}

void TestLaunch::agentGetsTheRequestAndItsPort()
{
    QFETCH(QString, geometry);
    QCOMPARE(start(geometry), 0);
    QVERIFY(waitForFile(programs->filePath(u"arguments"_s)));
    QCOMPARE(QString::fromUtf8(recorded(u"arguments"_s)),
             u"[%1][%2]"_s.arg(geometry, QString::number(41000 + displays->first())));
}

void TestLaunch::agentWorksInTheDirectory()
{
    programs->add(u"start-agent"_s, record(u"cwd"_s, u"pwd -P"_s));
    QCOMPARE(start(), 0);
    QVERIFY(waitForFile(programs->filePath(u"cwd"_s)));
    QCOMPARE(QString::fromUtf8(recorded(u"cwd"_s)), QDir(directory).canonicalPath() + u'\n');
}

void TestLaunch::agentInheritsNothingButTheStandardStreams()
{
    keepInheritedDescriptors();
    QTemporaryFile open;
    QVERIFY(open.open());
    QTcpServer listener;
    QVERIFY(listener.listen(QHostAddress::LocalHost));
    programs->add(u"start-agent"_s, descriptorsScript());
    QCOMPARE(start(), 0);
    QVERIFY(waitForFile(programs->filePath(u"descriptors"_s)));
    QCOMPARE(recorded(u"descriptors"_s), QByteArray(" 0 1 2"));
}

void TestLaunch::agentOutlivesTheServer()
{
    programs->add(u"start-agent"_s, lastingScript());
    QCOMPARE(start(), 0);
    QVERIFY(waitForFile(programs->filePath(u"pid"_s)));
    // It is not a child, so that no zombie stays, and has its own session and group, so that signals to ours miss it.
    QVERIFY(isRunning(session.monitorPid));
    QVERIFY(::waitpid(session.monitorPid, nullptr, WNOHANG) == -1);
    QVERIFY(::getsid(session.monitorPid) != ::getsid(0));
    QVERIFY(::getpgid(session.monitorPid) != ::getpgid(0));
}

void TestLaunch::agentSeesTheWholeDescription()
{
    programs->add(u"start-agent"_s,
                  u"set -- display window_mode name info authority\n"_s + record(u"found"_s, u"ls -d \"$@\" 2>&1"_s));
    QCOMPARE(start(), 0);
    QVERIFY(waitForFile(programs->filePath(u"found"_s)));
    QCOMPARE(recorded(u"found"_s), QByteArray("authority\ndisplay\ninfo\nname\nwindow_mode\n"));
}

void TestLaunch::recordIsFilled()
{
    programs->add(u"start-agent"_s, lastingScript());
    session.logStamp = QDateTime::currentDateTime();
    session.started = session.lastConnect = session.lastDisconnect = session.logStamp;
    session.broken = true;
    session.clients = 3;
    session.passwords = QStringList{u"pw"_s};
    session.screenSize = QSize(1, 2);
    session.exited = true;
    session.exitCode = 5;
    QCOMPARE(start(u"rootless"_s, u"two words"_s), 0);

    QCOMPARE(session.directory, directory);
    QCOMPARE(session.display, displays->first());
    QCOMPARE(session.windowMode, u"rootless"_s);
    QCOMPARE(session.name, u"two words"_s);
    QCOMPARE(session.logStamp, QDateTime::fromMSecsSinceEpoch(0));
    QCOMPARE(session.broken, false);
    QVERIFY(session.started.isNull());
    QVERIFY(session.lastConnect.isNull());
    QVERIFY(session.lastDisconnect.isNull());
    QCOMPARE(session.clients, 0);
    QCOMPARE(session.passwords, QStringList());
    QCOMPARE(session.screenSize, QSize(-1, -1));
    QCOMPARE(session.exited, false);
    QCOMPARE(session.exitCode, -1);

    QVERIFY(waitForFile(programs->filePath(u"pid"_s)));
    QCOMPARE(QByteArray::number(session.monitorPid), recorded(u"pid"_s));
}

void TestLaunch::firstOpenDisplayIsTaken()
{
    displays = std::make_unique<ReservedDisplays>(3);
    putFile(ReservedDisplays::lockPath(displays->first()), "");
    QCOMPARE(start(), 0);
    QCOMPARE(session.display, displays->first() + 1);
    QCOMPARE(contentOf(file(u"display"_s)), QByteArray::number(displays->first() + 1));
    QVERIFY(recorded(u"xauth_calls"_s).contains("[unix:" + QByteArray::number(displays->first() + 1) + ']'));
    QVERIFY(waitForFile(programs->filePath(u"arguments"_s)));
    QCOMPARE(recorded(u"arguments"_s), "[desktop][" + QByteArray::number(41000 + displays->first() + 1) + ']');
}

void TestLaunch::logOfAnEarlierRunIsSetAside()
{
    QVERIFY(QDir().mkpath(directory));
    putFile(file(u"server_log"_s), "earlier\n");
    putFile(file(u"server_exit"_s), "3");
    programs->add(u"start-agent"_s, record(u"found"_s, u"ls server_*"_s));
    QCOMPARE(start(), 0);
    QVERIFY(waitForFile(programs->filePath(u"found"_s)));
    QCOMPARE(recorded(u"found"_s), QByteArray("server_log.old\n"));
    QCOMPARE(contentOf(file(u"server_log.old"_s)), QByteArray("earlier\n"));
}

void TestLaunch::pidOfAnEarlierRunIsRemoved()
{
    // The system may have given the pid to another process.
    QVERIFY(QDir().mkpath(directory));
    putFile(file(u"server_pid"_s), QByteArray::number(::getpid()));
    programs->add(u"start-agent"_s, record(u"found"_s, u"ls"_s));
    QCOMPARE(start(), 0);
    QVERIFY(waitForFile(programs->filePath(u"found"_s)));
    QVERIFY(recorded(u"found"_s).contains("display\n"));
    QVERIFY(!recorded(u"found"_s).contains("server_pid\n"));
}

void TestLaunch::locksOfAnEarlierRunDoNotBlock()
{
    QVERIFY(QDir().mkpath(directory));
    putFile(file(u"authority-c"_s), QByteArray());
    putFile(file(u"authority-l"_s), QByteArray());
    programs->add(u"xauth"_s, u"[ ! -e \"$2-c\" ] && [ ! -e \"$2-l\" ]\n"_s);
    QCOMPARE(start(), 0);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestLaunch::logOfTheLastRunReplacesTheOneBefore()
{
    QVERIFY(QDir().mkpath(directory));
    putFile(file(u"server_log"_s), "earlier\n");
    putFile(file(u"server_log.old"_s), "much earlier\n");
    programs->add(u"start-agent"_s, record(u"found"_s, u"ls server_*"_s));
    QCOMPARE(start(), 0);
    QVERIFY(waitForFile(programs->filePath(u"found"_s)));
    QCOMPARE(recorded(u"found"_s), QByteArray("server_log.old\n"));
    QCOMPARE(contentOf(file(u"server_log.old"_s)), QByteArray("earlier\n"));
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestLaunch::newDirectoryHasNoEarlierRun()
{
    // An older log stays if there is no newer one to replace it.
    QVERIFY(QDir().mkpath(directory));
    putFile(file(u"server_log.old"_s), "much earlier\n");
    QCOMPARE(start(), 0);
    QCOMPARE(contentOf(file(u"server_log.old"_s)), QByteArray("much earlier\n"));
    QVERIFY(!QFile::exists(file(u"server_log"_s)));
    QVERIFY(!QFile::exists(file(u"server_exit"_s)));
}

void TestLaunch::withoutDisplayNothingIsCreated()
{
    programs->remove(u"xauth"_s);
    programs->remove(u"start-agent"_s);
    const auto tryRange = [this](quint16 base, quint16 limit) {
        return startSession(&session, directory, base, limit, u"desktop"_s, u"xterm"_s);
    };
    const QStringList line = {u"Warning: Failed to find an open display"_s};

    QCOMPARE(tryRange(10, 10), NoOpenDisplay);
    QCOMPARE(logger->takeLines(), line);
    putFile(ReservedDisplays::lockPath(displays->first()), "");
    QCOMPARE(tryRange(displays->first(), displays->end()), NoOpenDisplay);
    QCOMPARE(logger->takeLines(), line);
    QVERIFY(!QFile::exists(folder->filePath(u"sessions"_s)));
    QCOMPARE(session.directory, kUntouched);
}

void TestLaunch::directoryThatCannotBeCreatedFails()
{
    programs->remove(u"xauth"_s);
    programs->remove(u"start-agent"_s);
    putFile(folder->filePath(u"sessions"_s), "a file");
    QCOMPARE(start(), DirectoryFailed);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to create the directory \"%1\""_s.arg(directory)});
    QCOMPARE(session.directory, kUntouched);
}

void TestLaunch::fileThatCannotBeWrittenFails_data()
{
    QTest::addColumn<QString>("blocked");
    QTest::addColumn<QStringList>("left");
    QTest::newRow("display") << u"display"_s << QStringList{u"display"_s};
    QTest::newRow("window_mode") << u"window_mode"_s << QStringList{u"display"_s, u"window_mode"_s};
    QTest::newRow("name") << u"name"_s << QStringList{u"display"_s, u"name"_s, u"window_mode"_s};
    QTest::newRow("info") << u"info"_s << QStringList{u"display"_s, u"info"_s, u"name"_s, u"window_mode"_s};
}

void TestLaunch::fileThatCannotBeWrittenFails()
{
    QFETCH(QString, blocked);
    programs->remove(u"start-agent"_s);
    programs->remove(u"xauth"_s);
    QVERIFY(QDir().mkpath(file(blocked)));
    QCOMPARE(start(), WriteFailed);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to open the file \"%1\": Is a directory"_s.arg(file(blocked))});
    QTEST(files(), "left");
    QCOMPARE(session.directory, kUntouched);
}

void TestLaunch::missingXauthFails()
{
    programs->remove(u"xauth"_s);
    programs->remove(u"start-agent"_s);
    QCOMPARE(start(), WriteFailed);
    const QStringList lines = logger->takeLines();
    QCOMPARE(lines.size(), 1);
    // Qt words the reason.
    const auto beginning = "Warning: Failed to run the program \"xauth\": "_L1;
    QVERIFY2(lines[0].startsWith(beginning) && lines[0].size() > beginning.size(), qPrintable(lines[0]));
    QCOMPARE(files(), QStringList({u"display"_s, u"info"_s, u"name"_s, u"window_mode"_s}));
    QCOMPARE(session.directory, kUntouched);
}

void TestLaunch::failedAuthorityFails()
{
    programs->add(u"xauth"_s, xauthScript() + u"echo 'no luck' >&2\necho more >&2\nexit 1\n"_s);
    programs->remove(u"start-agent"_s);
    QCOMPARE(start(), WriteFailed);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to run the program \"xauth\": no luck"_s});
    QCOMPARE(recorded(u"xauth_calls"_s).count('\n'), 1);
    QCOMPARE(contentOf(file(u"display"_s)), QByteArray::number(displays->first()));
    QCOMPARE(files(), QStringList({u"authority"_s, u"display"_s, u"info"_s, u"name"_s, u"window_mode"_s}));
    QCOMPARE(session.directory, kUntouched);
}

void TestLaunch::failedSecondAuthorityIsOnlyLogged()
{
    programs->add(u"xauth"_s, xauthScript() + u"case $4 in unix:*) exit 0;; esac\necho 'no luck' >&2\nexit 1\n"_s);
    QCOMPARE(start(), 0);
    QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to run the program \"xauth\": no luck"_s});
    QCOMPARE(recorded(u"xauth_calls"_s).count('\n'), 2);
    QCOMPARE(session.directory, directory);
    QVERIFY(waitForFile(programs->filePath(u"arguments"_s)));
}

void TestLaunch::agentThatCannotBeStartedFails_data()
{
    QTest::addColumn<QByteArray>("program");
    QTest::newRow("missing") << QByteArray();
    QTest::newRow("without its interpreter") << QByteArray("#!/nonexistent/interpreter\n");
}

void TestLaunch::agentThatCannotBeStartedFails()
{
    QFETCH(QByteArray, program);
    programs->remove(u"start-agent"_s);
    if (!program.isNull()) {
        const QString path = programs->filePath(u"start-agent"_s);
        putFile(path, program);
        QVERIFY(::chmod(QFile::encodeName(path).constData(), 0700) == 0);
    }
    QCOMPARE(start(), AgentFailed);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to start the agent in the directory \"%1\""_s.arg(directory)});
    QCOMPARE(recorded(u"xauth_calls"_s).count('\n'), 2);
    QCOMPARE(files(), QStringList({u"authority"_s, u"display"_s, u"info"_s, u"name"_s, u"window_mode"_s}));
    QCOMPARE(session.directory, kUntouched);
}

void TestLaunch::agentWhosePidCannotBeWrittenRunsOn()
{
    programs->add(u"start-agent"_s, lastingScript());
    QVERIFY(QDir().mkpath(file(u"monitor_pid"_s)));
    QCOMPARE(start(), WriteFailed);
    QCOMPARE(logger->takeLines(),
             QStringList{u"Warning: Failed to open the file \"%1\": Is a directory"_s.arg(file(u"monitor_pid"_s))});
    QCOMPARE(session.directory, kUntouched);
    QVERIFY(waitForFile(programs->filePath(u"pid"_s)));
    agents.append(recorded(u"pid"_s).toInt());
    QVERIFY(isRunning(agents.constLast()));
}

ZARVO_TEST(TestLaunch)

#include "tst_launch.moc"
