// SPDX-License-Identifier: MIT
#include "client/sessions/sessionfollower.h"
#include "client/terminal/eventwait.h"
#include "tests/client/servedcontext.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class TestSessionFollower : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        listed = Json::Value();
        beforeAnswer = nullptr;
        context = std::make_unique<ServedContext>([this](QSslSocket *peer, const Json::Value &request) {
            if (beforeAnswer) {
                beforeAnswer(peer);
            }
            FakeServer::answer(peer, request, listed);
        });
    }

    void cleanup() { context.reset(); }

    void firstListIsRequestedAndLaterOnesArePushed()
    {
        listed = sessionsNamed({u"one"_s});
        SessionFollower follower(context->get(), 10s);
        QCOMPARE(next(&follower), "one"_ba);
        FakeServer::notify(client(), sessionsNamed({u"one"_s, u"two"_s}));
        FakeServer::notify(client(), Json::Value());
        QCOMPARE(next(&follower), "one two"_ba);
        QCOMPARE(next(&follower), ""_ba);
        QCOMPARE(context->server().requests(), 1);
    }

    void listPushedBeforeTheAnswerReplacesIt()
    {
        listed = sessionsNamed({u"old"_s});
        beforeAnswer = [](QSslSocket *peer) {
            FakeServer::notify(peer, sessionsNamed({u"older"_s}));
            FakeServer::notify(peer, sessionsNamed({u"new"_s}));
        };
        SessionFollower follower(context->get(), 10s);
        QCOMPARE(next(&follower), "new"_ba);
        QCOMPARE(next(&follower, 50ms), "timed out"_ba);
    }

    void onlyTheNewestListsAreKept()
    {
        SessionFollower follower(context->get(), 10s);
        QCOMPARE(next(&follower), ""_ba);
        int taken = 0;
        connect(&context->get()->client, &RpcClient::sessionsUpdated, this, [&taken] { ++taken; });
        for (int i = 1; i <= 200; ++i) {
            FakeServer::notify(client(), sessionsNamed({QString::number(i)}));
        }
        QTRY_COMPARE(taken, 200);
        QByteArray last;
        int lists = 0;
        for (QByteArray name = next(&follower, 0ms); name != "timed out"; name = next(&follower, 0ms)) {
            last = name;
            ++lists;
        }
        QCOMPARE(last, "200"_ba);
        QVERIFY(lists > 1 && lists < 100);
    }

    void timesOutWithoutAnEvent()
    {
        SessionFollower follower(context->get(), 10s);
        QCOMPARE(next(&follower), ""_ba);
        QCOMPARE(next(&follower, 20ms), "timed out"_ba);
        QCOMPARE(next(&follower, 0ms), "timed out"_ba);
        FakeServer::notify(client(), sessionsNamed({u"later"_s}));
        QCOMPARE(next(&follower), "later"_ba);
    }

    void restartedServerIsAskedAgain()
    {
        listed = sessionsNamed({u"before"_s});
        SessionFollower follower(context->get(), 30s);
        QCOMPARE(next(&follower), "before"_ba);
        context->stopServer();
        QCOMPARE(next(&follower), "lost"_ba);
        listed = sessionsNamed({u"after"_s});
        QTimer::singleShot(100ms, this, [this] { context->startServer(); });
        QCOMPARE(next(&follower), "after"_ba);
        FakeServer::notify(client(), sessionsNamed({u"update"_s}));
        QCOMPARE(next(&follower), "update"_ba);
    }

    void lostConnectionIsRestored()
    {
        SessionFollower follower(context->get(), 30s);
        QCOMPARE(next(&follower), ""_ba);
        for (int i = 0; i < 3; ++i) { // each loss is reported once
            client()->disconnectFromHost();
            QCOMPARE(next(&follower), "lost"_ba);
            QCOMPARE(next(&follower), ""_ba);
        }
    }

    void lossDuringTheFirstRequestIsReported()
    {
        beforeAnswer = [](QSslSocket *peer) { peer->disconnectFromHost(); };
        SessionFollower follower(context->get(), 30s);
        QCOMPARE(next(&follower), "lost"_ba);
        beforeAnswer = nullptr;
        QCOMPARE(next(&follower), ""_ba);
    }

    void failsWhenThePatienceIsOver()
    {
        SessionFollower follower(context->get(), 300ms);
        QCOMPARE(next(&follower), ""_ba);
        context->stopServer();
        QCOMPARE(next(&follower), "lost"_ba);
        QCOMPARE(next(&follower), "failed"_ba);
        QCOMPARE(failed.code, ExitCode::NoServer);
    }

    void timeoutEndsTheReconnectBeforeThePatience()
    {
        SessionFollower follower(context->get(), kNoDeadline);
        QCOMPARE(next(&follower), ""_ba);
        context->stopServer();
        QCOMPARE(next(&follower), "lost"_ba);
        QCOMPARE(next(&follower, 100ms), "timed out"_ba);
        context->startServer();
        QCOMPARE(next(&follower), ""_ba);
    }

    void wakeEndsAnyWait()
    {
        SessionFollower follower(context->get(), kNoDeadline);
        QCOMPARE(next(&follower), ""_ba);
        follower.wake(); // before the wait
        QCOMPARE(next(&follower), "woken"_ba);
        QTimer::singleShot(50ms, &follower, &SessionFollower::wake);
        QCOMPARE(next(&follower), "woken"_ba);
        context->stopServer();
        QCOMPARE(next(&follower), "lost"_ba);
        QTimer::singleShot(50ms, &follower, &SessionFollower::wake);
        QCOMPARE(next(&follower), "woken"_ba);
        context->startServer();
        QCOMPARE(next(&follower), ""_ba);
    }

    void serverWithAnotherCertificateIsRefused()
    {
        SessionFollower follower(context->get(), kNoDeadline);
        QCOMPARE(next(&follower), ""_ba);
        context->stopServer();
        QCOMPARE(next(&follower), "lost"_ba);
        context->startServerWithAnotherCertificate();
        QCOMPARE(next(&follower), "failed"_ba);
        QCOMPARE(failed.code, ExitCode::CertificateRefused);
    }

private:
    static Json::Value sessionsNamed(const QStringList &names)
    {
        SessionList sessions;
        for (const QString &name : names) {
            sessions.append(makeSession(name, name));
        }
        return serverList(sessions);
    }

    QSslSocket *client() { return context->server().clients().first(); }

    /** The next event as one text: the names of the sessions, or the name of the event. */
    QByteArray next(SessionFollower *follower, std::chrono::milliseconds timeout = 30s)
    {
        SessionList sessions;
        switch (follower->next(timeout, &sessions, &failed)) {
        case SessionFollower::Event::Lost:
            return "lost";
        case SessionFollower::Event::TimedOut:
            return "timed out";
        case SessionFollower::Event::Woken:
            return "woken";
        case SessionFollower::Event::Failed:
            return "failed";
        case SessionFollower::Event::List:
            break;
        }
        QStringList names;
        for (const SessionEntry &session : std::as_const(sessions)) {
            names.append(session.name);
        }
        return names.join(u' ').toUtf8();
    }

    Json::Value listed; ///< what the server answers to every request
    std::function<void(QSslSocket *)> beforeAnswer;
    std::unique_ptr<ServedContext> context;
    Failure failed;
};

ZARVO_TEST(TestSessionFollower)
#include "tst_sessionfollower.moc"
