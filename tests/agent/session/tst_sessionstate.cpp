// SPDX-License-Identifier: MIT
#include "agent/door/vncauth.h"
#include "agent/session/sessionlog.h"
#include "agent/session/sessionstate.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <thread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class SessionStateTest final : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;
    QDateTime now;

    QString path() const { return directory.filePath(u"log"_s); }
    QByteArray log() const { return contentOf(path()); }

    SessionState::Clock clock()
    {
        return [this] { return now; };
    }

private slots:
    void init()
    {
        QFile::remove(path());
        now = QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5, 678));
    }

    void unknownValuesAreLeftOut()
    {
        SessionLog sessionLog;
        QString error;
        QVERIFY(sessionLog.open(path(), &error));
        const SessionState state(&sessionLog, clock());
        QCOMPARE(state.toJson(), QByteArray("{\"Clients\":0,\"Passwords\":[]}\n"));
        QVERIFY(!state.isReady());
        QVERIFY(log().isEmpty());
    }

    void knownValuesAreInTheJson()
    {
        SessionLog sessionLog;
        QString error;
        QVERIFY(sessionLog.open(path(), &error));
        SessionState state(&sessionLog, clock());
        state.setScreenSize(QSize(800, 600));
        state.setScreenSize(QSize(800, 600)); // the same size is not logged again
        state.setReady();
        QVERIFY(state.isReady());
        state.offerPassword();
        state.offerPassword();
        const QByteArray used = state.passwords()->all().first();
        const QByteArray challenge = newVncChallenge();
        QVERIFY(state.passwords()->take(challenge, vncAuthResponse(used, challenge)));
        now = now.addSecs(10);
        state.clientAuthenticated(u"::1"_s, used);
        const QByteArray left = state.passwords()->all().first();
        QCOMPARE(state.toJson(), "{\"Clients\":1,\"LastConnect\":\"2024-01-02T03:04:15\",\"Passwords\":[\"" + left +
                                     "\"],\"ScreenHeight\":600,\"ScreenWidth\":800,"
                                     "\"Started\":\"2024-01-02T03:04:05\"}\n");
        now = now.addSecs(10);
        state.clientsDisconnected({u"::1"_s});
        state.expirePasswords();
        QCOMPARE(state.toJson(), QByteArray("{\"Clients\":0,\"LastConnect\":\"2024-01-02T03:04:15\","
                                            "\"LastDisconnect\":\"2024-01-02T03:04:25\",\"Passwords\":[],"
                                            "\"ScreenHeight\":600,\"ScreenWidth\":800,"
                                            "\"Started\":\"2024-01-02T03:04:05\"}\n"));
        QCOMPARE(log(), "Screen resized to '800x600'\n"
                        "RDP initialized at '2024-01-02T03:04:05'\n"
                        "Added new password " +
                            used + "\nAdded new password " + left +
                            "\n"
                            "Client authenticated from '::1' at '2024-01-02T03:04:15' with password '" +
                            used +
                            "'\n"
                            "Client disconnected from '::1' at '2024-01-02T03:04:25'\n"
                            "Expiring password " +
                            left + "\n");
    }

    void replacedPasswordIsLogged()
    {
        SessionLog sessionLog;
        QString error;
        QVERIFY(sessionLog.open(path(), &error));
        SessionState state(&sessionLog, clock());
        for (qsizetype i = 0; i < PasswordStore::kMaxOpen + 1; ++i) {
            state.offerPassword();
        }
        QCOMPARE(log().count("Added new password "), PasswordStore::kMaxOpen + 1);
        QCOMPARE(log().count("Expiring password "), 1);
    }

    void unusedPasswordsAreTakenBack()
    {
        SessionLog sessionLog;
        QString error;
        QVERIFY(sessionLog.open(path(), &error));
        SessionState state(&sessionLog, clock());
        state.setPasswordLifetime(50ms);
        state.offerPassword();
        state.offerPassword();
        const QList<QByteArray> passwords = state.passwords()->all();
        QTRY_VERIFY(state.passwords()->all().isEmpty());
        QCOMPARE(log(), "Added new password " + passwords[0] + "\nAdded new password " + passwords[1] +
                            "\nExpiring password " + passwords[0] + "\nExpiring password " + passwords[1] + "\n");
    }

    // The machine was busy or asleep. The password lets nobody in, and its end is told once the timer fires.
    void overduePasswordIsTakenBackByALateTimer()
    {
        SessionLog sessionLog;
        QString error;
        QVERIFY(sessionLog.open(path(), &error));
        SessionState state(&sessionLog, clock());
        state.setPasswordLifetime(1ms);
        state.offerPassword();
        const QByteArray password = state.passwords()->all().value(0);
        const auto end = state.passwords()->nextEnd();
        QVERIFY(end);
        std::this_thread::sleep_until(*end + 1ms); // without the event loop, so the timer cannot fire
        const QByteArray challenge = newVncChallenge();
        QVERIFY(!state.passwords()->take(challenge, vncAuthResponse(password, challenge)));
        QCOMPARE(log(), "Added new password " + password + "\n");
        QTRY_VERIFY(state.passwords()->all().isEmpty());
        QCOMPARE(log(), "Added new password " + password + "\nExpiring password " + password + "\n");
    }

    void usedPasswordIsNotTakenBack()
    {
        SessionLog sessionLog;
        QString error;
        QVERIFY(sessionLog.open(path(), &error));
        SessionState state(&sessionLog, clock());
        state.setPasswordLifetime(1h);
        state.offerPassword();
        const QByteArray used = state.passwords()->all().first();
        const QByteArray challenge = newVncChallenge();
        QVERIFY(state.passwords()->take(challenge, vncAuthResponse(used, challenge)));
        state.setPasswordLifetime(1ms);
        state.offerPassword();
        QTRY_VERIFY(state.passwords()->all().isEmpty());
        QVERIFY(!log().contains("Expiring password " + used));
        QCOMPARE(log().count("Expiring password "), 1);
    }

    void localViewerIsLoggedWithoutAPassword()
    {
        SessionLog sessionLog;
        QString error;
        QVERIFY(sessionLog.open(path(), &error));
        SessionState state(&sessionLog, clock());
        state.clientAuthenticated(u"local"_s, {});
        QCOMPARE(log(), QByteArray("Client authenticated from 'local' at '2024-01-02T03:04:05' with password ''\n"));
        QVERIFY(state.toJson().contains("\"Clients\":1,"));
    }

    void eventsHaveDifferentDates()
    {
        SessionLog sessionLog;
        QString error;
        QVERIFY(sessionLog.open(path(), &error));
        SessionState state(&sessionLog, clock());
        state.clientsDisconnected({u"a"_s, u"b"_s}); // at the same time, so with one date
        state.clientsDisconnected({u"c"_s});
        state.clientsDisconnected({});
        state.clientsDisconnected({u"d"_s});
        QCOMPARE(log(), QByteArray("Client disconnected from 'a' at '2024-01-02T03:04:05'\n"
                                   "Client disconnected from 'b' at '2024-01-02T03:04:05'\n"
                                   "Client disconnected from 'c' at '2024-01-02T03:04:06'\n"
                                   "Client disconnected from 'd' at '2024-01-02T03:04:07'\n"));
        now = now.addSecs(1); // still before the last date
        state.clientsDisconnected({u"e"_s});
        QVERIFY(log().contains("'e' at '2024-01-02T03:04:08'"));
        now = now.addSecs(-7200); // the clock was set back
        state.clientsDisconnected({u"f"_s});
        QVERIFY(log().contains("'f' at '2024-01-02T01:04:06'"));
    }
};

ZARVO_TEST(SessionStateTest)
#include "tst_sessionstate.moc"
