// SPDX-License-Identifier: MIT
#include "agent/session/agent.h"
#include "agent/session/guardlink.h"
#include "agent/session/sessionlog.h"
#include "base/signalcatcher.h"
#include "tests/agent/authorityentry.h"
#include "tests/agent/testlog.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <csignal>
#include <memory>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/** The X server is a script that never serves a screen; the tests of the built agent have a real one. */
class AgentTest final : public QObject
{
    Q_OBJECT

private:
    const ReservedDisplays displays;
    QString before;
    QByteArray searchPath;
    std::unique_ptr<QTemporaryDir> directory;
    std::unique_ptr<TestLog> log;
    std::unique_ptr<SessionLog> sessionLog;
    std::array<int, 2> signalEnds = {};
    std::array<int, 2> linkEnds = {}; ///< the agent's, the guard's
    std::unique_ptr<SignalCatcher> catcher;
    std::unique_ptr<GuardLink> link;
    std::unique_ptr<Agent> agent;
    std::unique_ptr<QSignalSpy> finished;

    [[nodiscard]] quint16 display() const { return displays.first(); }
    [[nodiscard]] QStringList arguments() const { return {u"800x600"_s, QString::number(41000 + display())}; }
    [[nodiscard]] QString path(const QString &name) const { return directory->filePath(name); }
    [[nodiscard]] QStringList criticals() const { return log->lines.filter(u"Critical: "_s); }

    [[nodiscard]] bool installXServer(const QByteArray &script)
    {
        return writeScript(path(u"bin/Xtigervnc"_s), script);
    }

    /** The X server's script leaves a mark and then waits until it is ended. */
    [[nodiscard]] bool startWithWaitingXServer()
    {
        const QString mark = path(u"mark"_s);
        if (!installXServer("touch " + QFile::encodeName(mark) + "\nexec sleep 1000")) {
            return false;
        }
        agent->start(arguments());
        return QTest::qWaitFor([&mark] { return QFile::exists(mark); }, 20000);
    }

    /** Waits for the end. @return the exit code; nothing when the agent does not finish, or more than once */
    [[nodiscard]] std::optional<AgentExitCode> exitCode()
    {
        const bool isFinished = QTest::qWaitFor([this] { return finished->count() > 0; }, 30000);
        QCoreApplication::processEvents();
        return isFinished && finished->count() == 1 ? std::optional(finished->first().first().value<AgentExitCode>())
                                                    : std::nullopt;
    }

private slots:
    void initTestCase() { QCOMPARE(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }

    void init()
    {
        before = QDir::currentPath();
        searchPath = qgetenv("PATH");
        directory = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(directory->path()));
        QVERIFY(QDir().mkdir(u"bin"_s));
        qputenv("PATH", QFile::encodeName(path(u"bin"_s)) + ":/usr/bin:/bin");
        const QByteArray number = QByteArray::number(display());
        putFile(SessionFile::kDisplay, number);
        putFile(SessionFile::kAuthority, authorityEntry(number));

        log = std::make_unique<TestLog>();
        sessionLog = std::make_unique<SessionLog>();
        QString error;
        QVERIFY(sessionLog->open(SessionFile::kServerLog, &error));
        QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalEnds.data()), 0);
        QCOMPARE(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, linkEnds.data()), 0);
        catcher = std::make_unique<SignalCatcher>(signalEnds[0]);
        link = std::make_unique<GuardLink>(linkEnds[0]);
        agent = std::make_unique<Agent>(sessionLog.get(), catcher.get(), link.get());
        finished = std::make_unique<QSignalSpy>(agent.get(), &Agent::finished);
    }

    void cleanup()
    {
        finished.reset();
        agent.reset();
        link.reset();
        catcher.reset();
        for (const int descriptor : {signalEnds[0], signalEnds[1], linkEnds[0], linkEnds[1]}) {
            ::close(descriptor);
        }
        sessionLog.reset();
        log.reset();
        QVERIFY(QDir::setCurrent(before));
        directory.reset();
        qputenv("PATH", searchPath);
    }

    void badArgumentsEndIt()
    {
        agent->start({u"800x600"_s});
        QCOMPARE(exitCode(), AgentExitCode::BadArguments);
        QCOMPARE(criticals().size(), 1);
        QVERIFY(!QFile::exists(SessionFile::kServerPid));
    }

    void missingDisplayFileEndsIt()
    {
        QVERIFY(QFile::remove(SessionFile::kDisplay));
        agent->start(arguments());
        QCOMPARE(exitCode(), AgentExitCode::NotStarted);
        QCOMPARE(criticals().size(), 1);
    }

    void portOfAnotherDisplayEndsIt()
    {
        agent->start({u"800x600"_s, QString::number(41001 + display())});
        QCOMPARE(exitCode(), AgentExitCode::BadArguments);
        QCOMPARE(criticals(), QStringList{u"Critical: The port of display %1 is %2, not %3"_s.arg(display())
                                              .arg(41000 + display())
                                              .arg(41001 + display())});
    }

    void authorityThatCannotBeWrittenEndsIt()
    {
        QVERIFY(QFile::remove(SessionFile::kAuthority));
        QVERIFY(QDir().mkdir(SessionFile::kAuthority));
        agent->start(arguments());
        QCOMPARE(exitCode(), AgentExitCode::NotStarted);
        QCOMPARE(criticals().size(), 1);
        QVERIFY(!QFile::exists(SessionFile::kServerPid));
    }

    void takenPortEndsIt()
    {
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::LocalHost, static_cast<quint16>(41000 + display())));
        agent->start(arguments());
        QCOMPARE(exitCode(), AgentExitCode::NotStarted);
        QCOMPARE(criticals().size(), 1);
        QVERIFY(!QFile::exists(agentSocketPath(display())));
    }

    void xServerThatFailsEndsIt()
    {
        QVERIFY(installXServer("echo first; echo second >&2; exit 3"));
        agent->start(arguments());
        QCOMPARE(exitCode(), AgentExitCode::NotStarted);
        const QStringList expected = {u"Warning: X server: first"_s, u"Warning: X server: second"_s,
                                      u"Critical: The X server did not start: exit code 3"_s};
        QCOMPARE(log->lines, expected);
    }

    void requestEndsItDuringTheStart()
    {
        QVERIFY(startWithWaitingXServer());
        QVERIFY(QFile::exists(agentSocketPath(display())));
        emit catcher->gotTERM();
        QCOMPARE(exitCode(), AgentExitCode::Ended);
        QVERIFY(criticals().isEmpty());
        QTcpServer next;
        QVERIFY(next.listen(QHostAddress::Any, static_cast<quint16>(41000 + display())));
    }

    void lostGuardEndsIt()
    {
        QVERIFY(startWithWaitingXServer());
        QCOMPARE(::shutdown(linkEnds[1], SHUT_RDWR), 0);
        QCOMPARE(exitCode(), AgentExitCode::AgentDied);
        QCOMPARE(criticals(), QStringList{u"Critical: The agent's guard was killed"_s});
    }

    void removedDirectoryEndsIt()
    {
        QVERIFY(startWithWaitingXServer());
        QVERIFY(QDir::setCurrent(before));
        QVERIFY(directory->remove());
        QCOMPARE(exitCode(), AgentExitCode::Ended);
        QVERIFY(criticals().isEmpty());
        QVERIFY(log->lines.contains(u"Warning: The directory of the session was removed"_s));
    }

    void firstReasonDecidesTheExitCode()
    {
        QVERIFY(startWithWaitingXServer());
        emit catcher->gotTERM();
        QCOMPARE(::shutdown(linkEnds[1], SHUT_RDWR), 0);
        QCOMPARE(exitCode(), AgentExitCode::Ended);
        QVERIFY(criticals().isEmpty());
    }

    void endExpiresThePasswords()
    {
        QVERIFY(startWithWaitingXServer());
        emit catcher->gotUSR1();
        emit catcher->gotTERM();
        QCOMPARE(exitCode(), AgentExitCode::Ended);
        const QList<QByteArray> lines = contentOf(SessionFile::kServerLog).trimmed().split('\n');
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].startsWith("Added new password "));
        QVERIFY(lines[1].startsWith("Expiring password "));
    }
};

ZARVO_TEST(AgentTest)
#include "tst_agent.moc"
