// SPDX-License-Identifier: MIT
#include "client/verbs/verbs.h"
#include "tests/client/sessions.h"
#include "tests/client/verbs/verbserver.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

class TestConnectVerb : public QObject
{
    Q_OBJECT

private slots:
    void init() { server = std::make_unique<VerbServer>(); }
    void cleanup() { server.reset(); }

    void wrongUsageAsksNoServer_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("JSON for a viewer") << QStringList{u"--json"_s, u"one"_s};
        QTest::newRow("new without a command") << QStringList{u"--new"_s, u"--print"_s};
        QTest::newRow("new with a blank command") << QStringList{u"--new"_s, u"--print"_s, u" "_s};
        QTest::newRow("new with half a size")
            << QStringList{u"--new"_s, u"--print"_s, u"--geometry"_s, u"640"_s, u"xterm"_s};
        QTest::newRow("size of a session that exists")
            << QStringList{u"--print"_s, u"--geometry"_s, u"640x480"_s, u"one"_s};
        QTest::newRow("two sessions") << QStringList{u"--print"_s, u"one"_s, u"two"_s};
    }
    void wrongUsageAsksNoServer()
    {
        QFETCH(QStringList, arguments);
        server->local = {makeSession(u"1"_s, u"one"_s)};
        QCOMPARE(run(arguments), ExitCode::Usage);
        QCOMPARE(server->methods(), QStringList());
        QVERIFY(!server->errors.isEmpty());
    }

    void missingViewerIsReportedBeforeAPasswordIsMade()
    {
        const EnvironmentVariable viewer("ZARVO_VIEWER", "no-such-viewer");
        server->local = {makeSession(u"1"_s, u"one"_s)};
        QCOMPARE(run({u"one"_s}), ExitCode::NoViewer);
        QCOMPARE(server->methods(), QStringList());
    }

    void methodFitsTheState_data()
    {
        QTest::addColumn<QString>("permission");
        QTest::addColumn<QStringList>("refused");
        QTest::addColumn<QStringList>("asked");
        QTest::addColumn<ExitCode>("code");
        const QString resume = u"Resume"_s;
        const QString replay = u"Replay"_s;
        QTest::newRow("suspended") << u"connect"_s << QStringList() << QStringList{resume} << ExitCode::Done;
        QTest::newRow("offered") << u"retry"_s << QStringList() << QStringList{replay} << ExitCode::Done;
        // Between the listing and the request the state may change.
        QTest::newRow("was suspended") << u"connect"_s << QStringList{resume} << QStringList{resume, replay}
                                       << ExitCode::Done;
        QTest::newRow("was offered") << u"retry"_s << QStringList{replay} << QStringList{replay, resume}
                                     << ExitCode::Done;
        QTest::newRow("neither") << u"connect"_s << QStringList{resume, replay} << QStringList{resume, replay}
                                 << ExitCode::WrongState;
        QTest::newRow("a viewer is connected")
            << u"disconnect"_s << QStringList{resume} << QStringList{resume} << ExitCode::WrongState;
    }
    void methodFitsTheState()
    {
        QFETCH(QString, permission);
        QFETCH(QStringList, refused);
        QFETCH(QStringList, asked);
        QFETCH(ExitCode, code);
        server->local = {makeSession(u"1"_s, u"one"_s, permission)};
        for (const QString &method : refused) {
            server->refusals.insert(u"Live."_s + method, VerbServer::kInvalidState);
        }
        QCOMPARE(run({u"--print"_s, u"one"_s}), code);
        QStringList methods = server->methods();
        methods.removeAll(u"ListLocalSessions"_s);
        QCOMPARE(methods, asked);
        QCOMPARE(server->output.contains(u"password  secret12\n"_s), code == ExitCode::Done);
    }

    void otherRefusalIsNotTriedAgain()
    {
        server->local = {makeSession(u"1"_s, u"one"_s)};
        server->refusals = {{u"Live.Resume"_s, VerbServer::kNoSuchSession}};
        QCOMPARE(run({u"--print"_s, u"one"_s}), ExitCode::NoSuchSession);
        QVERIFY(!server->methods().contains(u"Replay"_s));
    }

    void sessionOfThisHostComesBeforeOneElsewhere()
    {
        server->local = {makeSession(u"1"_s, u"one"_s)};
        server->others = {elsewhere(u"2"_s, u"one"_s, u"ssh://far"_s)};
        QCOMPARE(run({u"--print"_s, u"one"_s}), ExitCode::Done);
        QCOMPARE(server->methods(), (QStringList{u"ListLocalSessions"_s, u"Resume"_s}));
        QCOMPARE(server->lastParameters(), QStringList{server->local.first().id});
    }

    void ambiguousNameIsNotLookedForElsewhere()
    {
        server->local = {makeSession(u"1"_s, u"one"_s), makeSession(u"2"_s, u"one"_s)};
        QCOMPARE(run({u"--print"_s, u"one"_s}), ExitCode::Ambiguous);
        QCOMPARE(server->methods(), QStringList{u"ListLocalSessions"_s});
    }

    void sessionElsewhereIsOfferedByTheZarvoctlThere()
    {
        const SshScript ssh;
        server->others = {elsewhere(u"2"_s, u"two"_s, u"ssh://me@far:2222/"_s)};
        QCOMPARE(run({u"--print"_s, u"--json"_s, u"--trust-location"_s, u"two"_s}), ExitCode::Done);
        QCOMPARE(server->methods(), (QStringList{u"ListLocalSessions"_s, u"ListSessions"_s}));
        const QString call =
            u" -p 2222 -l me -- far zarvoctl connect --print --json --no-start %1\n"_s.arg(server->others.first().id);
        QVERIFY2(ssh.calls().contains(call), qPrintable(ssh.calls()));
        Json::Value offer;
        QVERIFY(parseJson(server->output.toUtf8(), &offer));
        QCOMPARE(stringFromJson(offer["host"]), u"far"_s);
        QCOMPARE(offer["port"].asInt(), 41100);
    }

    void sshDoesNotRunToAHostThatHasNotReportedTheSession()
    {
        const SshScript ssh;
        server->others = {elsewhere(u"2"_s, u"two"_s, u"ssh://192.0.2.9/"_s)};
        QCOMPARE(run({u"--print"_s, u"two"_s}), ExitCode::UntrustedLocation);
        QVERIFY2(server->errors.contains(u"--trust-location"_s), qPrintable(server->errors));
        QCOMPARE(ssh.calls(), QString());
    }

    void locationWithoutAHostIsRefused()
    {
        const SshScript ssh;
        server->others = {elsewhere(u"2"_s, u"two"_s, u"http://far/"_s)};
        QCOMPARE(run({u"--print"_s, u"two"_s}), ExitCode::WrongState);
        QVERIFY2(server->errors.contains(u"\"http://far/\""_s), qPrintable(server->errors));
        QCOMPARE(ssh.calls(), QString());
    }

    void newSessionIsStartedAndShown()
    {
        const QTemporaryDir folder;
        const QString seen = folder.filePath(u"seen"_s);
        const EnvironmentVariable viewer("ZARVO_VIEWER", "sh -c \"echo $3 > " + QFile::encodeName(seen) + "\" viewer");
        QCOMPARE(run({u"--new"_s, u"--geometry"_s, u"640x480"_s, u"--"_s, u"xterm"_s, u"-e"_s, u"top"_s}),
                 ExitCode::Done);
        QCOMPARE(server->methods(), QStringList{u"Start"_s});
        QCOMPARE(server->lastParameters().sliced(1), (QStringList{u"xterm -e top"_s, u"640x480"_s}));
        QCOMPARE(contentOf(seen), "127.0.0.1::41234\n");
        QCOMPARE(server->output, QString());
    }

private:
    /** Stands in for ssh: keeps how it was called, and prints an offer. */
    class SshScript
    {
    public:
        SshScript() { putFile(path(u"offer"_s), "Welcome!\n{\"port\": 41100, \"password\": \"secret34\"}"); }

        [[nodiscard]] QString calls() const { return QString::fromUtf8(contentOf(path(u"calls"_s))); }

    private:
        [[nodiscard]] QString path(const QString &name) const { return folder.filePath(name); }

        const QTemporaryDir folder;
        const EnvironmentVariable variable{"ZARVO_SSH", "sh -c \"echo $* >> " + QFile::encodeName(path(u"calls"_s)) +
                                                            "; cat " + QFile::encodeName(path(u"offer"_s)) + "\" ssh"};
    };

    static SessionEntry elsewhere(const QString &digits, const QString &name, const QString &location)
    {
        SessionEntry session = makeSession(digits, name);
        session.location = location;
        return session;
    }

    ExitCode run(const QStringList &arguments) { return server->run(connectVerb(), arguments); }

    std::unique_ptr<VerbServer> server;
};

ZARVO_TEST(TestConnectVerb)
#include "tst_connectverb.moc"
