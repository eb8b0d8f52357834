// SPDX-License-Identifier: MIT
#include "client/verbs/verbs.h"
#include "tests/client/sessions.h"
#include "tests/client/verbs/verbserver.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestSuspendVerb : public QObject
{
    Q_OBJECT

private slots:
    void suspendingPrintsNothing()
    {
        VerbServer server;
        server.local = {makeSession(u"1"_s, u"one"_s, u"disconnect"_s), makeSession(u"2"_s, u"two"_s)};
        QCOMPARE(server.run(suspendVerb(), {u"one"_s}), ExitCode::Done);
        QCOMPARE(server.methods(), (QStringList{u"ListLocalSessions"_s, u"Suspend"_s}));
        QCOMPARE(server.lastParameters(), QStringList{server.local.first().id});
        QCOMPARE(server.output + server.errors, QString());
    }

    void refusalHasItsExitCode_data()
    {
        QTest::addColumn<int>("number");
        QTest::addColumn<ExitCode>("code");
        QTest::addColumn<bool>("explained");
        QTest::newRow("no viewer") << VerbServer::kInvalidState << ExitCode::WrongState << true;
        QTest::newRow("session has ended") << VerbServer::kNoSuchSession << ExitCode::NoSuchSession << false;
    }
    void refusalHasItsExitCode()
    {
        QFETCH(int, number);
        QFETCH(ExitCode, code);
        QFETCH(bool, explained);
        VerbServer server;
        server.local = {makeSession(u"1"_s, u"one"_s)};
        server.refusals = {{u"Live.Suspend"_s, number}};
        QCOMPARE(server.run(suspendVerb(), {u"one"_s}), code);
        QCOMPARE(server.errors.contains(u"No viewer is connected."_s), explained);
    }

    void unknownSessionIsNotSuspended()
    {
        VerbServer server;
        server.local = {makeSession(u"1"_s, u"one"_s)};
        QCOMPARE(server.run(suspendVerb(), {u"two"_s}), ExitCode::NoSuchSession);
        QVERIFY(!server.methods().contains(u"Suspend"_s));
    }
};

ZARVO_TEST(TestSuspendVerb)
#include "tst_suspendverb.moc"
