// SPDX-License-Identifier: MIT
#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"
#include "agent/door/confinedclient.h"
#include "agent/door/reception.h"
#include "tests/agent/confined/visitorends.h"
#include "tests/agent/fakebackend.h"
#include "tests/testmain.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

/** Notes which processes are to end. */
class NotingReception final : public Reception
{
public:
    void setCertificate(const QByteArray &) override {}
    bool receive(const VisitorOrder &, int, int, QString *) override { return false; }
    void end(quint32 id) override { ended.append(id); }

    QList<quint32> ended;
};

} // namespace

/** The test plays the confined process. */
class ConfinedClientTest final : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;
    NotingReception reception;
    std::array<int, 2> client = {-1, -1};  ///< the viewer's, the agent's
    std::array<int, 2> control = {-1, -1}; ///< the process's, the agent's
    std::unique_ptr<FakeBackend> backend;
    std::unique_ptr<ConfinedClient> confined;
    std::unique_ptr<QSignalSpy> ended;

    QString path() const { return directory.filePath(u"rfb"_s); }

    void begin(FakeBackend::Manner manner = FakeBackend::Manner::Echo)
    {
        backend = std::make_unique<FakeBackend>(manner);
        QVERIFY(backend->listen(path()));
        confined->start(path());
    }

    /** Waits for the packet with the X server's socket. @return the socket; -1 on failure */
    int takeBackend()
    {
        std::vector<int> descriptors;
        std::optional<std::string> packet;
        const bool hasCome = QTest::qWaitFor(
            [this, &descriptors, &packet] {
                packet = receivePacket(control[0], &descriptors);
                return packet.has_value();
            },
            30000);
        return hasCome && *packet == std::string{DoorPacket::kBackend} && descriptors.size() == 1 ? descriptors.front()
                                                                                                  : -1;
    }

private slots:
    void init()
    {
        reception.ended.clear();
        client = makePair();
        control = makeControlPair();
        ::fcntl(control[0], F_SETFL, O_NONBLOCK);
        ::fcntl(control[1], F_SETFL, O_NONBLOCK);
        confined = std::make_unique<ConfinedClient>(Visit{7, client[1], control[1]}, u"192.0.2.1"_s, &reception);
        ended = std::make_unique<QSignalSpy>(confined.get(), &ViewerClient::ended);
    }

    void cleanup()
    {
        confined.reset();
        backend.reset();
        ::close(client[0]);
        if (control[0] != -1) {
            ::close(control[0]);
        }
    }

    void processGetsTheBackend()
    {
        begin();
        const int socket = takeBackend();
        QVERIFY(socket != -1);
        QCOMPARE(::fcntl(socket, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        writeBytes(socket, "echo");
        QByteArray received;
        const auto readMore = [socket, &received] {
            char buffer[16] = {};
            received.append(buffer, std::max<ssize_t>(::read(socket, buffer, sizeof buffer), 0));
            return received;
        };
        QTRY_COMPARE(readMore(), QByteArray("echo"));
        QCOMPARE(ended->count(), 0);
        QCOMPARE(confined->address(), u"192.0.2.1"_s);
        ::close(socket);
    }

    // The agent's own reading of the X server's socket would take bytes from the viewer.
    void agentReadsNothingFromTheBackend()
    {
        begin();
        const int socket = takeBackend();
        QVERIFY(socket != -1);
        QByteArray sent;
        QByteArray received;
        for (int i = 0; i < 50; ++i) {
            const QByteArray piece = QByteArray::number(i) + ' ';
            writeBytes(socket, piece);
            sent += piece;
            QCoreApplication::processEvents();
        }
        const auto readMore = [socket, &received] {
            char buffer[64] = {};
            received.append(buffer, std::max<ssize_t>(::read(socket, buffer, sizeof buffer), 0));
            return received.size();
        };
        QTRY_COMPARE(readMore(), sent.size());
        QCOMPARE(received, sent);
        ::close(socket);
    }

    void endOfTheProcessEndsIt()
    {
        begin();
        const int socket = takeBackend();
        ::close(socket);
        ::close(std::exchange(control[0], -1));
        QTRY_COMPARE(ended->count(), 1);
        QCOMPARE(ended->first().first().toString(), u"The client closed the connection"_s);
        QTRY_COMPARE(backend->sockets.front()->state(), QLocalSocket::UnconnectedState);
        QVERIFY(!readToTheEnd(client[0]).isNull());
    }

    // It has nothing more to say, so it may be an attacker's.
    void processThatTalksIsEnded()
    {
        begin();
        const int socket = takeBackend();
        QVERIFY(sendPacket(control[0], std::string{DoorPacket::kSign, '1', 'x'}));
        QTRY_COMPARE(ended->count(), 1);
        QCOMPARE(reception.ended, QList<quint32>{7});
        ::close(socket);
    }

    void destroyedClientBreaksEverythingOff()
    {
        begin();
        const int socket = takeBackend();
        confined.reset();
        QCOMPARE(reception.ended, QList<quint32>{7});
        QVERIFY(!readToTheEnd(client[0]).isNull());
        // The process has the X server's socket too, and it must be of no use.
        char byte = 0;
        QCOMPARE(::read(socket, &byte, 1), ssize_t{0});
        QTRY_COMPARE(backend->sockets.front()->state(), QLocalSocket::UnconnectedState);
        ::close(socket);
    }

    void backendThatDoesNotServeEndsIt_data()
    {
        QTest::addColumn<int>("manner");
        QTest::newRow("missing") << -1;
        QTest::newRow("refusing") << int(FakeBackend::Manner::Refuse);
        QTest::newRow("silent") << int(FakeBackend::Manner::Silent);
    }

    void backendThatDoesNotServeEndsIt()
    {
        QFETCH(int, manner);
        if (manner == -1) {
            confined->start(path());
        } else {
            begin(FakeBackend::Manner(manner));
        }
        QCOMPARE(ended->count(), 0); // never during start()
        QTRY_COMPARE(ended->count(), 1);
        QVERIFY(!readToTheEnd(client[0]).isNull());
        QCOMPARE(reception.ended, QList<quint32>{7});
        std::vector<int> descriptors;
        QVERIFY(!receivePacket(control[0], &descriptors));
        QVERIFY(descriptors.empty());
    }
};

ZARVO_TEST(ConfinedClientTest)
#include "tst_confinedclient.moc"
