// SPDX-License-Identifier: MIT
#include "client/verbs/verbs.h"
#include "tests/client/servedcontext.h"
#include "tests/client/sessions.h"
#include "tests/client/verbs/runverb.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestLogsVerb : public QObject
{
    Q_OBJECT

private slots:
    void sessionThatEndsAfterTheListingIsNotFound()
    {
        const ServedContext context([](QSslSocket *peer, const Json::Value &request) {
            FakeServer::answer(peer, request, serverList({makeSession(u"1"_s, u"one"_s)}));
        });
        QCOMPARE(runVerb(logsVerb(), *context, {u"one"_s}), ExitCode::NoSuchSession);
        QCOMPARE(runVerb(screenshotVerb(), *context, {u"one"_s, u"/dev/null/no.png"_s}), ExitCode::NoSuchSession);
        QVERIFY(QDir().mkpath(context->files.sessionDirectory(makeSession(u"1"_s, {}).id)));
        QCOMPARE(runVerb(logsVerb(), *context, {u"one"_s}), ExitCode::SessionFailed);
        QCOMPARE(runVerb(screenshotVerb(), *context, {u"one"_s, u"/dev/null/no.png"_s}), ExitCode::SessionFailed);
    }
};

ZARVO_TEST(TestLogsVerb)
#include "tst_logsverb.moc"
