// SPDX-License-Identifier: MIT
#include "client/sessions/offering.h"
#include "tests/client/servedcontext.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr int kInvalidState = -32092;

} // namespace

class TestOffering : public QObject
{
    Q_OBJECT

private slots:
    void hintFitsTheCurrentState_data()
    {
        QTest::addColumn<QString>("permission");
        QTest::addColumn<QString>("text");
        QTest::newRow("viewer") << u"disconnect"_s
                                << u"Not now. A viewer is connected; \"zarvoctl suspend\" disconnects it."_s;
        QTest::newRow("password") << u"retry"_s
                                  << u"Not now. A password is offered already; \"zarvoctl replay\" prints it."_s;
        QTest::newRow("no viewer, no password")
            << u"connect"_s << u"Not now. No password is offered; \"zarvoctl resume\" makes one."_s;
        QTest::newRow("unknown permission") << u"unheard-of"_s << u"Not now."_s;
    }
    void hintFitsTheCurrentState()
    {
        QFETCH(QString, permission);
        QFETCH(QString, text);
        now = {makeSession(u"1"_s, u"other"_s), makeSession(u"2"_s, u"this"_s, permission)};
        for (const QString &before : {u"disconnect"_s, u"retry"_s, u"connect"_s}) {
            QCOMPARE(refusedFor(makeSession(u"2"_s, u"this"_s, before)), text);
        }
    }

    void noHintForASessionThatHasEnded()
    {
        now = {makeSession(u"1"_s, u"other"_s)};
        QCOMPARE(refusedFor(makeSession(u"2"_s, u"this"_s)), u"Not now."_s);
    }

private:
    /** The text for the user when the server refuses the session, which was listed as @p listed. */
    QString refusedFor(const SessionEntry &listed)
    {
        ConnectionOffer offer;
        Failure failure;
        const bool isOffered = requestOffer(*context, u"Live.Resume"_s, listed, &offer, &failure);
        return !isOffered && failure.code == ExitCode::WrongState ? failure.text : u"not refused"_s;
    }

    SessionList now; ///< what the server lists
    ServedContext context{[this](QSslSocket *peer, const Json::Value &request) {
        if (request["method"] == "Live.ListLocalSessions") {
            FakeServer::answer(peer, request, serverList(now));
        } else {
            FakeServer::refuse(peer, request, kInvalidState, "Not now.");
        }
    }};
};

ZARVO_TEST(TestOffering)
#include "tst_offering.moc"
