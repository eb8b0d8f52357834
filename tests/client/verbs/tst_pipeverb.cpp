// SPDX-License-Identifier: MIT
#include "client/verbs/verbs.h"
#include "contract/sessiondirectory.h"
#include "tests/client/sessions.h"
#include "tests/client/verbs/verbserver.h"
#include "tests/helpers/agentsocket.h"
#include "tests/helpers/files.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/testmain.h"

#include <QDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

class TestPipeVerb : public QObject
{
    Q_OBJECT

private slots:
    void init() { server = std::make_unique<VerbServer>(); }
    void cleanup() { server.reset(); }

    void streamOfTheSessionIsAllOutput()
    {
        addSession(u"connect"_s);
        const AgentSocket agent(socketPath(), "RFB 003.008\n");
        QCOMPARE(run({u"one"_s}), ExitCode::Done);
        QCOMPARE(server->output, u"RFB 003.008\n"_s);
        QCOMPARE(server->errors, QString());
        QCOMPARE(server->methods(), QStringList{u"ListLocalSessions"_s});
    }

    void connectedSessionIsRefused()
    {
        addSession(u"disconnect"_s);
        const AgentSocket agent(socketPath(), "RFB 003.008\n");
        QCOMPARE(run({u"one"_s}), ExitCode::WrongState);
        QVERIFY2(server->errors.contains(u"A viewer is connected"_s), qPrintable(server->errors));
        QCOMPARE(agent.calls(), 0);
    }

    void sessionThatHasJustBeenLeftIsNotRefused()
    {
        addSession(u"disconnect"_s);
        const AgentSocket agent(socketPath(), "RFB 003.008\n");
        const AgentSocket state(agentSocketPath(displays.first()), "{\"Clients\":0}");
        QCOMPARE(run({u"one"_s}), ExitCode::Done);
    }

    void agentWithoutASocketIsReported()
    {
        addSession(u"connect"_s);
        QCOMPARE(run({u"one"_s}), ExitCode::SessionFailed);
        QVERIFY2(server->errors.contains(u"connect --print"_s), qPrintable(server->errors));
    }

    void sessionWithoutADirectoryHasEnded()
    {
        server->local = {makeSession(u"1"_s, u"one"_s)};
        QCOMPARE(run({u"one"_s}), ExitCode::NoSuchSession);
    }

    void sessionElsewhereIsRefused()
    {
        SessionEntry far = makeSession(u"2"_s, u"two"_s);
        far.location = u"ssh://far/"_s;
        server->others = {far};
        QCOMPARE(run({u"two"_s}), ExitCode::WrongState);
    }

private:
    ExitCode run(const QStringList &arguments) { return server->run(pipeVerb(), arguments); }

    void addSession(const QString &permission)
    {
        server->local = {makeSession(u"1"_s, u"one"_s, permission)};
        QVERIFY(QDir().mkpath(directory()));
        putFile(directory() + u"/display"_s, QByteArray::number(displays.first()));
    }

    [[nodiscard]] QString directory() const { return server->files().sessionDirectory(server->local.first().id); }
    [[nodiscard]] QString socketPath() const { return directory() + u'/' + viewerSocketName(displays.first()); }

    const ReservedDisplays displays;
    std::unique_ptr<VerbServer> server;
};

ZARVO_TEST(TestPipeVerb)
#include "tst_pipeverb.moc"
