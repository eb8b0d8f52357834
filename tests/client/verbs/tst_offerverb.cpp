// SPDX-License-Identifier: MIT
#include "client/verbs/verbs.h"
#include "tests/client/sessions.h"
#include "tests/client/verbs/verbserver.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestOfferVerb : public QObject
{
    Q_OBJECT

private slots:
    void eachVerbCallsItsMethod()
    {
        VerbServer server;
        const SessionEntry session = makeSession(u"1"_s, u"one"_s);
        server.local = {session, makeSession(u"2"_s, u"two"_s)};
        QCOMPARE(server.run(resumeVerb(), {u"one"_s}), ExitCode::Done);
        QCOMPARE(server.methods(), (QStringList{u"ListLocalSessions"_s, u"Resume"_s}));
        QCOMPARE(server.lastParameters(), QStringList{session.id});
        server.requests.clear();
        QCOMPARE(server.run(replayVerb(), {u"one"_s}), ExitCode::Done);
        QCOMPARE(server.methods(), (QStringList{u"ListLocalSessions"_s, u"Replay"_s}));
        QCOMPARE(server.lastParameters(), QStringList{session.id});
    }

    void offerIsPrinted()
    {
        VerbServer server;
        server.local = {makeSession(u"1"_s, u"one"_s)};
        QCOMPARE(server.run(resumeVerb(), {}), ExitCode::Done);
        QVERIFY2(server.output.contains(u"port      41234\npassword  secret12\n"_s), qPrintable(server.output));
        QCOMPARE(server.run(resumeVerb(), {u"--json"_s}), ExitCode::Done);
        Json::Value offer;
        QVERIFY(parseJson(server.output.toUtf8(), &offer));
        QCOMPARE(stringFromJson(offer["id"]), server.local.first().id);
        QCOMPARE(offer["port"].asInt(), 41234);
        QCOMPARE(server.errors, QString());
    }

    void refusedOfferPrintsNothing()
    {
        VerbServer server;
        server.local = {makeSession(u"1"_s, u"one"_s, u"disconnect"_s)};
        server.refusals = {{u"Live.Resume"_s, VerbServer::kInvalidState}};
        QCOMPARE(server.run(resumeVerb(), {u"one"_s}), ExitCode::WrongState);
        QCOMPARE(server.output, QString());
        QVERIFY2(server.errors.contains(u"zarvoctl suspend"_s), qPrintable(server.errors));
    }
};

ZARVO_TEST(TestOfferVerb)
#include "tst_offerverb.moc"
