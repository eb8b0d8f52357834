// SPDX-License-Identifier: MIT
#include "client/verbs/logsverb.h"
#include "client/verbs/screenshotverb.h"
#include "tests/client/servedcontext.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestLogsVerb : public QObject
{
    Q_OBJECT

private slots:
    void sessionThatEndsWhenItHasBeenListed()
    {
        const ServedContext context([](QSslSocket *peer, const Json::Value &request) {
            FakeServer::answer(peer, request, serverList({makeSession(u"1"_s, u"one"_s)}));
        });
        QCOMPARE(run<LogsVerb>(context, {u"one"_s}), ExitCode::NoSuchSession);
        QCOMPARE(run<ScreenshotVerb>(context, {u"one"_s, u"/dev/null/no.png"_s}), ExitCode::NoSuchSession);
        QVERIFY(QDir().mkpath(context->files.sessionDirectory(makeSession(u"1"_s, {}).id)));
        QCOMPARE(run<LogsVerb>(context, {u"one"_s}), ExitCode::SessionFailed);
        QCOMPARE(run<ScreenshotVerb>(context, {u"one"_s, u"/dev/null/no.png"_s}), ExitCode::SessionFailed);
    }

private:
    template <typename AVerb>
    static ExitCode run(const ServedContext &context, const QStringList &arguments)
    {
        AVerb verb;
        QCommandLineParser line;
        line.addOptions(verb.options());
        if (!line.parse(QStringList{u"verb"_s} + arguments)) {
            qFatal("wrong usage");
        }
        return verb.run(line, *context);
    }
};

ZARVO_TEST(TestLogsVerb)
#include "tst_logsverb.moc"
