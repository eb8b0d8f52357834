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
        // Between the two looks a viewer has come.
        lists = {{makeSession(u"1"_s, u"one"_s, u"retry"_s)}, {makeSession(u"1"_s, u"one"_s, u"disconnect"_s)}};
        QCOMPARE(run({u"one"_s, u"1000"_s}), ExitCode::Done);
        QCOMPARE(ended, QStringList{makeSession(u"1"_s, {}).id});
    }

    void allAreEndedAlsoWhenSomeHaveEndedThemselves()
    {
        lists = {{makeSession(u"1"_s, u"one"_s), makeSession(u"2"_s, u"two"_s)}};
        gone = {makeSession(u"1"_s, {}).id};
        QCOMPARE(run({u"--all"_s}), ExitCode::Done);
        QCOMPARE(ended.size(), 2);
    }

    void namedSessionThatHasEndedItselfIsNone()
    {
        lists = {{makeSession(u"1"_s, u"one"_s), makeSession(u"2"_s, u"two"_s)}};
        gone = {makeSession(u"1"_s, {}).id};
        QCOMPARE(run({u"one"_s, u"two"_s}), ExitCode::NoSuchSession);
        QCOMPARE(ended.size(), 2);
    }

private:
    ExitCode run(const QStringList &arguments) { return runVerb(terminateVerb(), **context, arguments); }

    QList<SessionList> lists; ///< what the server lists, one after the other; the last one from then on
    QStringList ended;        ///< what it was asked to end
    QStringList gone;         ///< what it knows no more by then
    std::unique_ptr<ServedContext> context;
};

ZARVO_TEST(TestTerminateVerb)
#include "tst_terminateverb.moc"
