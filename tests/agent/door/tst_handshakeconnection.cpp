// SPDX-License-Identifier: MIT
#include "agent/door/attemptlimiter.h"
#include "agent/door/handshakeconnection.h"
#include "agent/door/passwordstore.h"
#include "agent/door/vncauth.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTest>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class HandshakeConnectionTest final : public QObject
{
    Q_OBJECT

private:
    PasswordStore passwords;
    AttemptLimiter limiter;
    QTcpServer server;
    std::unique_ptr<QTcpSocket> client;
    std::unique_ptr<HandshakeConnection> handshake;

    /** Connects a client, and gives its other end to a new handshake. */
    void begin(HandshakeLimits limits = {20s, 1ms})
    {
        client = std::make_unique<QTcpSocket>();
        client->connectToHost(QHostAddress::LocalHost, server.serverPort());
        QTRY_VERIFY(server.hasPendingConnections());
        std::unique_ptr<QTcpSocket> socket(server.nextPendingConnection());
        socket->setParent(nullptr);
        handshake = std::make_unique<HandshakeConnection>(std::move(socket), &passwords, &limiter, limits);
    }

    /** Sends version and security type. @return the challenge */
    QByteArray answerVersion()
    {
        client->write("RFB 003.008\n\x02");
        // Greeting, list of types, challenge.
        return QTest::qWaitFor([this] { return client->bytesAvailable() >= 12 + 2 + kVncChallengeBytes; }, 30000)
                   ? client->readAll().last(kVncChallengeBytes)
                   : QByteArray();
    }

private slots:
    void initTestCase() { QVERIFY(server.listen(QHostAddress::LocalHost)); }

    void init()
    {
        passwords.takeAll();
        limiter.rightPassword(QHostAddress(QHostAddress::LocalHost));
    }

    void cleanup()
    {
        handshake.reset();
        client.reset();
    }

    void rightPasswordAuthenticates()
    {
        const QByteArray password = passwords.add().password;
        begin();
        QSignalSpy authenticated(handshake.get(), &HandshakeConnection::authenticated);
        const QByteArray challenge = answerVersion();
        client->write(vncAuthResponse(password, challenge) + "\x01more");
        QTRY_COMPARE(authenticated.count(), 1);
        QCOMPARE(authenticated.first().first().toByteArray(), password);
        QVERIFY(passwords.all().isEmpty());
        QTRY_COMPARE(client->bytesAvailable(), 4);
        QCOMPARE(client->readAll(), QByteArray(4, '\0'));
        QByteArray unread;
        const std::unique_ptr<QTcpSocket> socket = handshake->takeSocket(&unread);
        QTRY_COMPARE(unread.size() + socket->bytesAvailable(), 5);
        QCOMPARE(unread + socket->readAll(), QByteArray("\x01more"));
        QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    }

    void wrongPasswordIsRefusedAfterADelay()
    {
        passwords.add();
        begin({20s, 200ms});
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        const QByteArray challenge = answerVersion();
        QElapsedTimer timer;
        timer.start();
        client->write(vncAuthResponse("nonsense", challenge));
        QTRY_COMPARE(failed.count(), 1);
        QVERIFY(timer.elapsed() >= 195);
        QCOMPARE(failed.first().first().toString(), u"Wrong password"_s);
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
        QVERIFY(client->readAll().endsWith("Authentication failed"));
        QCOMPARE(passwords.all().size(), 1);
    }

    void guessCountsEvenIfTheClientLeavesBeforeTheAnswer()
    {
        for (int i = 0; i <= AttemptLimiter::kFreeAttempts; ++i) {
            begin({20s, 20s});
            QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
            const QByteArray challenge = answerVersion();
            client->write(vncAuthResponse("nonsense", challenge));
            client->disconnectFromHost();
            QTRY_COMPARE(failed.count(), 1);
        }
        QVERIFY(limiter.isLocked(QHostAddress(QHostAddress::LocalHost), AttemptLimiter::Clock::now()));
    }

    void lockedAddressIsTurnedAway()
    {
        for (int i = 0; i <= AttemptLimiter::kFreeAttempts; ++i) {
            limiter.wrongPassword(QHostAddress(QHostAddress::LocalHost), AttemptLimiter::Clock::now());
        }
        begin();
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->write("RFB 003.008\n");
        QTRY_COMPARE(failed.count(), 1);
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
        QVERIFY(client->readAll().endsWith("Too many wrong passwords, try again later"));
    }

    // Connections from before the lock get no further try, not even with the right password.
    void lockHoldsForEarlierConnections()
    {
        const QByteArray password = passwords.add().password;
        begin();
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        const QByteArray challenge = answerVersion();
        for (int i = 0; i <= AttemptLimiter::kFreeAttempts; ++i) {
            limiter.wrongPassword(QHostAddress(QHostAddress::LocalHost), AttemptLimiter::Clock::now());
        }
        client->write(vncAuthResponse(password, challenge));
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(passwords.all(), QList<QByteArray>{password});
    }

    void silentClientTimesOut_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("half a version") << QByteArray("RFB 003");
        QTest::newRow("no choice") << QByteArray("RFB 003.008\n");
        QTest::newRow("half a response") << QByteArray("RFB 003.008\n\x02half");
    }

    void silentClientTimesOut()
    {
        QFETCH(QByteArray, sent);
        begin({100ms, 1ms});
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->write(sent);
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), u"The handshake took too long"_s);
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
        QVERIFY(!limiter.isLocked(QHostAddress(QHostAddress::LocalHost), AttemptLimiter::Clock::now()));
        QCOMPARE(limiter.size(), 0);
    }

    void portScanIsNeitherLoggedNorCounted()
    {
        begin();
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->abort();
        QTRY_COMPARE(failed.count(), 1);
        QVERIFY(failed.first().first().toString().isEmpty());
        QCOMPARE(limiter.size(), 0);
    }

    void floodAfterAWrongPasswordIsDropped()
    {
        begin({20s, 100ms});
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        const QByteArray challenge = answerVersion();
        client->write(vncAuthResponse("nonsense", challenge) + QByteArray(1024 * 1024, 'x'));
        QTRY_COMPARE(failed.count(), 1);
    }
};

ZARVO_TEST(HandshakeConnectionTest)
#include "tst_handshakeconnection.moc"
