// SPDX-License-Identifier: MIT
#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"
#include "agent/door/attemptlimiter.h"
#include "agent/door/doorkey.h"
#include "agent/door/handshakeconnection.h"
#include "agent/door/passwordstore.h"
#include "agent/door/vncauth.h"
#include "tests/helpers/files.h"
#include "tests/helpers/threadreception.h"
#include "tests/helpers/tlspair.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr quint32 kBytesOfPlainOffer = 12 + 2 + kVncChallengeBytes; // greeting, list of types, challenge

/** Keeps the control sockets, so that the test plays the confined process. */
class ManualReception final : public Reception
{
public:
    ~ManualReception() override { ::close(control); }

    void setCertificate(const QByteArray &) override {}
    bool receive(const VisitorOrder &given, int, int theirs, QString *) override
    {
        order = given;
        control = ::fcntl(theirs, F_DUPFD_CLOEXEC, 0);
        return true;
    }
    void end(quint32 id) override { ended.append(id); }

    VisitorOrder order;
    int control = -1;
    QList<quint32> ended;
};

} // namespace

class HandshakeConnectionTest final : public QObject
{
    Q_OBJECT

private:
    const TlsPair pair = TlsPair::make();
    QTemporaryDir directory;
    const QString certificatePath = directory.filePath(u"certificate"_s);
    const QString keyPath = directory.filePath(u"key"_s);
    PasswordStore passwords;
    std::unique_ptr<AttemptLimiter> limiter;
    std::unique_ptr<DoorKey> key;
    std::unique_ptr<ThreadReception> reception;
    std::unique_ptr<ManualReception> manual;
    Reception *usedReception = nullptr;
    QTcpServer server;
    std::unique_ptr<QSslSocket> client;
    std::unique_ptr<HandshakeConnection> handshake;

    static Visitor stranger() { return {QHostAddress(QHostAddress::LocalHost), TcpPeer::OtherHost, true}; }
    static Visitor own() { return {QHostAddress(QHostAddress::LocalHost), TcpPeer::Ours, true}; }
    static Visitor remote() { return {QHostAddress(u"192.0.2.1"_s), TcpPeer::OtherHost, false}; }

    /** Connects a client, and gives its other end to a new handshake. */
    void begin(HandshakeLimits limits = {20s, 1ms}, const Visitor &visitor = stranger())
    {
        client = std::make_unique<QSslSocket>();
        client->connectToHost(QHostAddress::LocalHost, server.serverPort());
        QTRY_VERIFY(server.hasPendingConnections());
        const std::unique_ptr<QTcpSocket> socket(server.nextPendingConnection());
        const int descriptor = ::fcntl(static_cast<int>(socket->socketDescriptor()), F_DUPFD_CLOEXEC, 0);
        handshake = std::make_unique<HandshakeConnection>(
            descriptor, visitor, HandshakeHelpers{usedReception, key.get(), &passwords, limiter.get()}, limits);
        connect(handshake.get(), &HandshakeConnection::knocked, handshake.get(), &HandshakeConnection::receive);
    }

    void showCertificate()
    {
        putFile(keyPath, pair.keyPem);
        putFile(certificatePath, pair.certificatePem);
        QVERIFY(key->refresh());
        reception->setCertificate(key->certificatePem());
    }

    /** Waits until the client has @p bytes to read. @return all that it has; empty on failure */
    QByteArray readWhen(qint64 bytes)
    {
        return QTest::qWaitFor([this, bytes] { return client->bytesAvailable() >= bytes; }, 30000) ? client->readAll()
                                                                                                   : QByteArray();
    }

    /** Sends version and security type. @return the challenge */
    QByteArray answerVersion(qint64 offeredTypes = 1)
    {
        client->write("RFB 003.008\n\x02");
        return readWhen(kBytesOfPlainOffer + offeredTypes - 1).last(kVncChallengeBytes);
    }

    /** Does the handshake of VeNCrypt and TLS. @return the challenge; empty on failure */
    QByteArray startTls()
    {
        client->write(QByteArray("RFB 003.008\n") + QByteArray::fromHex("13000200000105"));
        // Greeting, types, version of VeNCrypt, its types, and that TLS begins.
        const qint64 types = handshake->visitor().mayBePlain ? 3 : 2;
        if (!readWhen(12 + types + 2 + 6 + 1).endsWith('\1')) {
            return {};
        }
        client->setPeerVerifyMode(QSslSocket::VerifyNone);
        client->startClientEncryption();
        return QTest::qWaitFor([this] { return client->isEncrypted(); }, 30000) ? readWhen(kVncChallengeBytes)
                                                                                : QByteArray();
    }

    void lock(const QHostAddress &address = QHostAddress(QHostAddress::LocalHost))
    {
        for (int i = 0; i <= AttemptLimiter::kFreeAttempts; ++i) {
            limiter->wrongPassword(address, AttemptLimiter::Clock::now());
        }
    }

    bool isLocked() const
    {
        return limiter->isLocked(QHostAddress(QHostAddress::LocalHost), AttemptLimiter::Clock::now());
    }

private slots:
    void initTestCase() { QVERIFY(server.listen(QHostAddress::LocalHost)); }

    void init()
    {
        passwords.takeAll();
        QFile::remove(certificatePath);
        limiter = std::make_unique<AttemptLimiter>();
        key = std::make_unique<DoorKey>(certificatePath, keyPath);
        reception = std::make_unique<ThreadReception>();
        manual = std::make_unique<ManualReception>();
        usedReception = reception.get();
    }

    void cleanup()
    {
        handshake.reset();
        client.reset();
        reception.reset();
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
        QVERIFY(!handshake->usesTls());
        QCOMPARE(readWhen(4), QByteArray(4, '\0'));
        const Visit visit = handshake->takeVisit();
        handshake.reset();
        ::close(visit.control);
        // Not a byte of what follows has been read.
        QTcpSocket socket;
        QVERIFY(socket.setSocketDescriptor(visit.client));
        QTRY_COMPARE(socket.bytesAvailable(), 5);
        QCOMPARE(socket.readAll(), QByteArray("\x01more"));
        QCOMPARE(socket.state(), QAbstractSocket::ConnectedState);
    }

    void rightPasswordAuthenticatesOverTls_data()
    {
        QTest::addColumn<int>("protocol");
        QTest::newRow("1.2") << int(QSsl::TlsV1_2);
        QTest::newRow("1.3") << int(QSsl::TlsV1_3);
    }

    void rightPasswordAuthenticatesOverTls()
    {
        QFETCH(int, protocol);
        showCertificate();
        const QByteArray password = passwords.add().password;
        begin({20s, 1ms}, remote());
        client->setProtocol(QSsl::SslProtocol(protocol));
        QSignalSpy authenticated(handshake.get(), &HandshakeConnection::authenticated);
        const QByteArray challenge = startTls();
        QCOMPARE(challenge.size(), kVncChallengeBytes);
        QCOMPARE(client->peerCertificate().toPem(), pair.certificatePem);
        QCOMPARE(client->sessionProtocol(), QSsl::SslProtocol(protocol));
        client->write(vncAuthResponse(password, challenge));
        QTRY_COMPARE(authenticated.count(), 1);
        QVERIFY(handshake->usesTls());
        QCOMPARE(readWhen(4), QByteArray(4, '\0'));
        const Visit visit = handshake->takeVisit();
        handshake.reset(); // does not end the process, which serves the client from now on
        QVERIFY(!QTest::qWaitFor([this] { return client->state() != QAbstractSocket::ConnectedState; }, 100));
        ::close(visit.control);
        ::close(visit.client);
    }

    void wrongPasswordIsRefusedAfterADelay_data()
    {
        QTest::addColumn<bool>("isTls");
        QTest::newRow("plain") << false;
        QTest::newRow("over TLS") << true;
    }

    void wrongPasswordIsRefusedAfterADelay()
    {
        QFETCH(bool, isTls);
        showCertificate();
        passwords.add();
        begin({20s, 200ms});
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        const QByteArray challenge = isTls ? startTls() : answerVersion(2);
        QCOMPARE(challenge.size(), kVncChallengeBytes);
        QElapsedTimer timer;
        timer.start();
        client->write(vncAuthResponse("nonsense", challenge));
        QVERIFY(readWhen(8 + 21).endsWith("Authentication failed"));
        QVERIFY(timer.elapsed() >= 195);
        client->disconnectFromHost();
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), u"Wrong password"_s);
        QCOMPARE(passwords.all().size(), 1);
        QCOMPARE(limiter->size(), 1);
    }

    void guessCountsEvenIfTheClientLeavesBeforeTheAnswer()
    {
        for (int i = 0; i <= AttemptLimiter::kFreeAttempts; ++i) {
            begin();
            QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
            const QByteArray challenge = answerVersion();
            client->write(vncAuthResponse("nonsense", challenge));
            client->disconnectFromHost();
            QTRY_COMPARE(failed.count(), 1);
        }
        QVERIFY(isLocked());
    }

    // Others on this host cannot lock the user out by guessing, because their guesses do not count against the user,
    // nor do the user's own count.
    void ownGuessesDoNotCount()
    {
        for (int i = 0; i < 2 * AttemptLimiter::kFreeAttempts; ++i) {
            begin({20s, 1ms}, own());
            QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
            client->write(vncAuthResponse("nonsense", answerVersion()));
            QVERIFY(!readWhen(8).isEmpty());
            client->disconnectFromHost();
            QTRY_COMPARE(failed.count(), 1);
        }
        QCOMPARE(limiter->size(), 0);
    }

    void lockedAddressIsTurnedAway()
    {
        lock();
        begin();
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->write("RFB 003.008\n");
        QVERIFY(readWhen(12 + 5 + 41).endsWith("Too many wrong passwords, try again later"));
        client->disconnectFromHost();
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), u"Too many wrong passwords"_s);
    }

    void ownConnectionIsNotLockedOut()
    {
        lock();
        const QByteArray password = passwords.add().password;
        begin({20s, 1ms}, own());
        QSignalSpy authenticated(handshake.get(), &HandshakeConnection::authenticated);
        client->write(vncAuthResponse(password, answerVersion()));
        QTRY_COMPARE(authenticated.count(), 1);
    }

    // Connections from before the lock get no further try, not even with the right password.
    void lockHoldsForEarlierConnections()
    {
        const QByteArray password = passwords.add().password;
        begin();
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        const QByteArray challenge = answerVersion();
        lock();
        client->write(vncAuthResponse(password, challenge));
        QVERIFY(readWhen(8 + 41).endsWith("Too many wrong passwords, try again later"));
        client->disconnectFromHost();
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(passwords.all(), QList<QByteArray>{password});
    }

    void visitorWithoutTlsHearsTheWaysIn()
    {
        showCertificate();
        begin({20s, 1ms}, remote());
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->write("RFB 003.008\n\x02");
        const QByteArray answer = readWhen(12 + 2 + 4 + 4 + 100);
        QCOMPARE(answer.mid(12, 2), QByteArray::fromHex("0113")); // VeNCrypt alone
        QVERIFY(answer.contains("\"zarvoctl connect\"") && answer.contains("X509Vnc"));
        client->disconnectFromHost();
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), u"It did not choose what was offered"_s);
    }

    void silentClientTimesOut_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("half a version") << QByteArray("RFB 003");
        QTest::newRow("no choice") << QByteArray("RFB 003.008\n");
        QTest::newRow("half a response") << QByteArray("RFB 003.008\n\x02half");
        QTest::newRow("half a choice of VeNCrypt") << QByteArray("RFB 003.008\n\x13\0\x02\0", 16);
        QTest::newRow("no TLS") << QByteArray("RFB 003.008\n") + QByteArray::fromHex("13000200000105");
        QTest::newRow("half a TLS record") << QByteArray("RFB 003.008\n") + QByteArray::fromHex("13000200000105160301");
    }

    void silentClientTimesOut()
    {
        QFETCH(QByteArray, sent);
        showCertificate();
        begin({100ms, 1ms});
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->write(sent);
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), u"The handshake took too long"_s);
        handshake.reset();
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
        QVERIFY(!isLocked());
        QCOMPARE(limiter->size(), 0);
    }

    void refusedClientThatDoesNotLeaveTimesOut()
    {
        begin({100ms, 1ms});
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->write("GET / HTTP/1.1\r\n\r\n");
        QTRY_COMPARE(failed.count(), 1);
        handshake.reset();
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
    }

    void portScanIsNeitherLoggedNorCounted()
    {
        begin();
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->abort();
        QTRY_COMPARE(failed.count(), 1);
        QVERIFY(failed.first().first().toString().isEmpty());
        QCOMPARE(limiter->size(), 0);
        QCOMPARE(reception->receivedCount, 0); // and no process was started
    }

    void floodAfterAWrongPasswordIsDropped()
    {
        begin({1s, 100ms});
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        const QByteArray challenge = answerVersion();
        client->write(vncAuthResponse("nonsense", challenge) + QByteArray(1024 * 1024, 'x'));
        QTRY_COMPARE(failed.count(), 1);
    }

    void visitorThatCannotBeReceivedIsClosed()
    {
        reception->failure = u"No memory"_s;
        begin();
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        client->write("RFB");
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), u"No memory"_s);
    }

    // An attacker may have taken the process over. It gets one signature and one try, and cannot let anybody in.
    void brokenProcessGetsNothing_data()
    {
        QTest::addColumn<QList<QByteArray>>("packets");
        const QByteArray sign = "S1" + QByteArray(51, 'x');
        const QByteArray guess = "R" + QByteArray(16, 'x');
        QTest::newRow("lets itself in") << QList<QByteArray>{"I0"};
        QTest::newRow("lets itself in over TLS") << QList<QByteArray>{"I1"};
        QTest::newRow("two signatures") << QList<QByteArray>{sign, sign};
        QTest::newRow("signature of nothing") << QList<QByteArray>{"S1"};
        QTest::newRow("signature of too much") << QList<QByteArray>{"S1" + QByteArray(1025, 'x')};
        QTest::newRow("two guesses") << QList<QByteArray>{guess, guess};
        QTest::newRow("long refusal") << QList<QByteArray>{"FPP"};
        QTest::newRow("unknown packet") << QList<QByteArray>{"x"};
    }

    void brokenProcessGetsNothing()
    {
        QFETCH(QList<QByteArray>, packets);
        showCertificate();
        passwords.add();
        usedReception = manual.get();
        begin({20s, 20s});
        QSignalSpy failed(handshake.get(), &HandshakeConnection::failed);
        QSignalSpy authenticated(handshake.get(), &HandshakeConnection::authenticated);
        client->write("x");
        QTRY_VERIFY(manual->control != -1);
        for (const QByteArray &packet : packets) {
            QVERIFY(sendPacket(manual->control, packet.toStdString()));
        }
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), u"Its process broke the rules"_s);
        QCOMPARE(authenticated.count(), 0);
        handshake.reset();
        QCOMPARE(manual->ended, QList<quint32>{manual->order.id});
    }

    void orderSaysWhatTheVisitorMay()
    {
        usedReception = manual.get();
        begin();
        client->write("x");
        QTRY_VERIFY(manual->control != -1);
        QVERIFY(handshake->isReceived());
        QVERIFY(!manual->order.offersTls); // there is no certificate
        QVERIFY(manual->order.offersPlain);
        QVERIFY(!manual->order.turnsAway);
        QCOMPARE(manual->order.challenge.size(), kChallengeBytes);
        const std::string before = manual->order.challenge;
        ::close(std::exchange(manual->control, -1));

        showCertificate();
        lock(remote().address);
        begin({20s, 1ms}, remote());
        client->write("x");
        QTRY_VERIFY(manual->control != -1);
        QVERIFY(manual->order.offersTls);
        QVERIFY(!manual->order.offersPlain);
        QVERIFY(manual->order.turnsAway);
        QVERIFY(manual->order.challenge != before);
    }

    // Its process has died after it used the password up. Nobody knows whether TLS was going on, so nothing must be
    // sent as plain text.
    void acceptedVisitorWhoseProcessDiesIsDisconnected()
    {
        const QByteArray password = passwords.add().password;
        usedReception = manual.get();
        begin();
        QSignalSpy authenticated(handshake.get(), &HandshakeConnection::authenticated);
        client->write("x");
        QTRY_VERIFY(manual->control != -1);
        const QByteArray challenge = QByteArray::fromStdString(manual->order.challenge);
        QVERIFY(sendPacket(manual->control, "R" + vncAuthResponse(password, challenge).toStdString()));
        QTRY_VERIFY(handshake->isAccepted());
        ::close(std::exchange(manual->control, -1));
        QTRY_COMPARE(authenticated.count(), 1);
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
    }
};

ZARVO_TEST(HandshakeConnectionTest)
#include "tst_handshakeconnection.moc"
