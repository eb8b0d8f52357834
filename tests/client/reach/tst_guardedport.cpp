// SPDX-License-Identifier: MIT
#include "client/reach/guardedport.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>

#include <array>
#include <memory>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** Connects, and waits until the other end closes. Makes system calls only, because a child process runs it. */
bool isClosedWithoutAByte(quint16 port)
{
    const int connection = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    char byte = 0;
    const bool isClosed = ::connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                          ::recv(connection, &byte, 1, 0) <= 0;
    ::close(connection);
    return isClosed;
}

} // namespace

class TestGuardedPort : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        port = std::make_unique<GuardedPort>();
        connect(port.get(), &GuardedPort::accepted, this, [this](int descriptor) { accepted.append(descriptor); });
        QString error;
        QVERIFY2(port->open(&error), qPrintable(error));
    }
    void cleanup()
    {
        for (const int descriptor : std::as_const(accepted)) {
            ::close(descriptor);
        }
        accepted.clear();
        port.reset();
    }

    void onlyOneViewerIsAccepted()
    {
        QTcpSocket first;
        first.connectToHost(QHostAddress(QHostAddress::LocalHost), port->port());
        QTRY_COMPARE(accepted.size(), 1);
        QTcpSocket second;
        second.connectToHost(QHostAddress(QHostAddress::LocalHost), port->port());
        QTRY_COMPARE(second.error(), QAbstractSocket::ConnectionRefusedError);
        QCOMPARE(accepted.size(), 1);
        QCOMPARE(first.state(), QAbstractSocket::ConnectedState);
    }

    void onlyTheLoopbackAddressListens()
    {
        QTcpSocket viewer;
        viewer.connectToHost(QHostAddress(u"127.0.0.2"_s), port->port());
        QTRY_COMPARE(viewer.error(), QAbstractSocket::ConnectionRefusedError);
    }

    void strangersAreClosedUntilTheViewerComes()
    {
        if (!canPlayStranger()) {
            QSKIP("only root can play a stranger");
        }
        std::array<int, 2> ends = {-1, -1};
        QVERIFY(::pipe(ends.data()) == 0);
        const pid_t child = ::fork();
        if (child == 0) {
            const bool isStranger = ::setresgid(kStrangerId, kStrangerId, kStrangerId) == 0 &&
                                    ::setresuid(kStrangerId, kStrangerId, kStrangerId) == 0;
            char closed = 0;
            for (int i = 0; isStranger && i < kTries; ++i) {
                closed = static_cast<char>(closed + (isClosedWithoutAByte(port->port()) ? 1 : 0));
            }
            [[maybe_unused]] const ssize_t told = ::write(ends[1], &closed, 1);
            ::_exit(0);
        }
        bool hasEnded = false;
        QTRY_VERIFY(hasEnded || (hasEnded = ::waitpid(child, nullptr, WNOHANG) == child));
        char closed = 0;
        QCOMPARE(::read(ends[0], &closed, 1), 1);
        ::close(ends[0]);
        ::close(ends[1]);
        QCOMPARE(int(closed), kTries);
        QCOMPARE(accepted.size(), 0);
        QTcpSocket viewer;
        viewer.connectToHost(QHostAddress(QHostAddress::LocalHost), port->port());
        QTRY_COMPARE(accepted.size(), 1);
    }

private:
    static constexpr int kTries = 20;

    std::unique_ptr<GuardedPort> port;
    QList<int> accepted;
};

ZARVO_TEST(TestGuardedPort)
#include "tst_guardedport.moc"
