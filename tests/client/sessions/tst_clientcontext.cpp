// SPDX-License-Identifier: MIT
#include "client/sessions/clientcontext.h"
#include "tests/client/servedcontext.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestClientContext : public QObject
{
    Q_OBJECT

private slots:
    void listIsRetriedWhileSessionsEnd()
    {
        // Each session that ends while a list is made fails that list.
        int left = 50;
        const ServedContext context([&left](QSslSocket *peer, const Json::Value &request) {
            if (left > 0) {
                --left;
                refuseUnknownSession(peer, request);
            } else {
                FakeServer::answer(peer, request, serverList({makeSession(u"1"_s, u"last"_s)}));
            }
        });
        SessionList sessions;
        Failure failure;
        QVERIFY2(context->listAll(&sessions, &failure), qPrintable(failure.text));
        QCOMPARE(sessions.size(), 1);
    }

    void listIsGivenUpAfterManyFailures()
    {
        const ServedContext context(refuseUnknownSession);
        SessionList sessions;
        Failure failure;
        QVERIFY(!context->listLocal(&sessions, &failure));
        QCOMPARE(failure.code, ExitCode::NoSuchSession);
    }
};

ZARVO_TEST(TestClientContext)
#include "tst_clientcontext.moc"
