// SPDX-License-Identifier: MIT
#include "client/verbs/verbs.h"
#include "tests/client/servedcontext.h"
#include "tests/client/sessions.h"
#include "tests/client/verbs/runverb.h"
#include "tests/testmain.h"

#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

class TestTerminateVerb : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        lists.clear();
        ended.clear();
        gone.clear();
        context = std::make_unique<ServedContext>([this](QSslSocket *peer, const Json::Value &request) {
            if (stringFromJson(request["method"]) != "Live.Terminate"_L1) {
                FakeServer::answer(peer, request, serverList(lists.size() > 1 ? lists.takeFirst() : lists.first()));
                return;
            }
            ended.append(stringFromJson(request["params"][0]));
            if (gone.contains(ended.last())) {
                refuseUnknownSession(peer, request);
            } else {
                FakeServer::answer(peer, request, Json::Value());
            }
        });
    }
    void cleanup() { context.reset(); }

    void sessionThatIsNamedTwiceIsEndedOnce()
    {
        // A viewer connects between the two listings.
        lists = {{makeSession(u"1"_s, u"one"_s, u"retry"_s)}, {makeSession(u"1"_s, u"one"_s, u"disconnect"_s)}};
        QCOMPARE(run({u"one"_s, u"1000"_s}), ExitCode::Done);
        QCOMPARE(ended, QStringList{makeSession(u"1"_s, {}).id});
    }

    void allSucceedsWhenASessionHasEndedMeanwhile()
    {
        lists = {{makeSession(u"1"_s, u"one"_s), makeSession(u"2"_s, u"two"_s)}};
        gone = {makeSession(u"1"_s, {}).id};
        QCOMPARE(run({u"--all"_s}), ExitCode::Done);
        QCOMPARE(ended.size(), 2);
    }

    void namedSessionThatHasEndedMeanwhileIsNotFound()
    {
        lists = {{makeSession(u"1"_s, u"one"_s), makeSession(u"2"_s, u"two"_s)}};
        gone = {makeSession(u"1"_s, {}).id};
        QCOMPARE(run({u"one"_s, u"two"_s}), ExitCode::NoSuchSession);
        QCOMPARE(ended.size(), 2);
    }

private:
    ExitCode run(const QStringList &arguments) { return runVerb(terminateVerb(), **context, arguments); }

    QList<SessionList> lists; ///< what the server lists, one per request; the last one is repeated
    QStringList ended;        ///< ids that the server was asked to end
    QStringList gone;         ///< ids that it refuses as unknown
    std::unique_ptr<ServedContext> context;
};

ZARVO_TEST(TestTerminateVerb)
#include "tst_terminateverb.moc"
