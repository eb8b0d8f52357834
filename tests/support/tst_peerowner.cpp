// SPDX-License-Identifier: MIT
#include "support/localendpoint.h"
#include "support/peerowner.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** A listening TCP socket on loopback, in one of three ways to write the address. */
struct Listener
{
    explicit Listener(const QByteArray &kind)
    {
        isIPv4 = kind == "IPv4";
        descriptor = ::socket(isIPv4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_storage storage = {};
        socklen_t size = 0;
        if (isIPv4) {
            auto *address = reinterpret_cast<sockaddr_in *>(&storage);
            address->sin_family = AF_INET;
            address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            size = sizeof *address;
        } else {
            auto *address = reinterpret_cast<sockaddr_in6 *>(&storage);
            address->sin6_family = AF_INET6;
            address->sin6_addr = kind == "IPv6" ? in6addr_loopback : in6addr_any;
            size = sizeof *address;
        }
        isListening =
            ::bind(descriptor, reinterpret_cast<sockaddr *>(&storage), size) == 0 && ::listen(descriptor, 16) == 0;
        clientIsIPv4 = kind != "IPv6";
        sockaddr_storage bound = {};
        socklen_t boundSize = sizeof bound;
        ::getsockname(descriptor, reinterpret_cast<sockaddr *>(&bound), &boundSize);
        port = isIPv4 ? reinterpret_cast<sockaddr_in *>(&bound)->sin_port
                      : reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port;
    }
    ~Listener() { ::close(descriptor); }
    Q_DISABLE_COPY_MOVE(Listener)

    /** A client's socket; only system calls, so that a Stranger may call it. */
    int connectClient() const
    {
        const int client = ::socket(clientIsIPv4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in ipv4 = {};
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = port;
        ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sockaddr_in6 ipv6 = {};
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = port;
        ipv6.sin6_addr = in6addr_loopback;
        const int result = clientIsIPv4 ? ::connect(client, reinterpret_cast<sockaddr *>(&ipv4), sizeof ipv4)
                                        : ::connect(client, reinterpret_cast<sockaddr *>(&ipv6), sizeof ipv6);
        return result == 0 ? client : -1;
    }

    int descriptor = -1;
    in_port_t port = 0;
    bool isIPv4 = true;
    bool clientIsIPv4 = true;
    bool isListening = false;
};

/** Binds and listens as the calling process; only system calls. */
bool listenLocally(const QByteArray &name)
{
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(name.size()));
    if (::bind(listener, reinterpret_cast<sockaddr *>(&address), size) != 0 || ::listen(listener, 4) != 0) {
        return false;
    }
    return name.startsWith('\0') || ::chmod(name.constData(), 0777) == 0;
}

QByteArray uniqueName()
{
    return "zarvo-peerowner-" + QByteArray::number(::getpid());
}

} // namespace

class PeerOwnerTest final : public QObject
{
    Q_OBJECT

private slots:
    void ownTcpPeerIsOurs_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::newRow("IPv4") << QByteArray("IPv4");
        QTest::newRow("IPv6") << QByteArray("IPv6");
        QTest::newRow("IPv4 at a socket for both") << QByteArray("both");
    }

    void ownTcpPeerIsOurs()
    {
        QFETCH(QByteArray, kind);
        const Listener listener(kind);
        QVERIFY(listener.isListening);
        const int client = listener.connectClient();
        const int server = ::accept(listener.descriptor, nullptr, nullptr);
        QCOMPARE(findTcpPeer(server), TcpPeer::Ours);
        QCOMPARE(findTcpPeer(client), TcpPeer::Ours);
        ::close(client);
        ::close(server);
    }

    void strangersTcpPeerIsAnotherUsers_data() { ownTcpPeerIsOurs_data(); }

    void strangersTcpPeerIsAnotherUsers()
    {
        if (!canPlayStranger()) {
            QSKIP("only root can play another user");
        }
        QFETCH(QByteArray, kind);
        const Listener listener(kind);
        const Stranger stranger([&listener] { [[maybe_unused]] const int kept = listener.connectClient(); });
        QVERIFY(stranger.hasActed());
        const int server = ::accept(listener.descriptor, nullptr, nullptr);
        QCOMPARE(findTcpPeer(server), TcpPeer::OtherUser);
        ::close(server);
    }

    /** The kernel reports such a socket as root's. */
    void closedTcpPeerIsNotTakenForRoots_data() { ownTcpPeerIsOurs_data(); }

    void closedTcpPeerIsNotTakenForRoots()
    {
        QFETCH(QByteArray, kind);
        const Listener listener(kind);
        const int client = listener.connectClient();
        const int server = ::accept(listener.descriptor, nullptr, nullptr);
        ::close(client);
        QCOMPARE(findTcpPeer(server), TcpPeer::OtherUser);
        ::close(server);
    }

    void unconnectedSocketHasNoTrustedPeer()
    {
        const Listener listener("IPv4");
        QCOMPARE(findTcpPeer(listener.descriptor), TcpPeer::OtherUser);
        QCOMPARE(findTcpPeer(-1), TcpPeer::OtherUser);
        QVERIFY(!localPeerOwner(listener.descriptor));
        const int local = ::socket(AF_UNIX, SOCK_STREAM, 0);
        QVERIFY(!localPeerOwner(local));
        QVERIFY(!isLocalPeerTrusted(local));
        ::close(local);
    }

    void strangersListenerIsRefused()
    {
        if (!canPlayStranger()) {
            QSKIP("only root can play another user");
        }
        QTemporaryDir directory(QDir::tempPath() + u"/zarvo-XXXXXX"_s);
        const QByteArray path = QFile::encodeName(directory.filePath(u"squat"_s));
        ::chmod(QFile::encodeName(directory.path()).constData(), 0777);
        const QByteArray abstractName = uniqueName();
        const Stranger stranger([&] {
            if (!listenLocally(path) || !listenLocally(QByteArray(1, '\0') + abstractName)) {
                ::_exit(1);
            }
        });
        QVERIFY(stranger.hasActed());
        QCOMPARE(connectLocalSocket(QFile::decodeName(path)), -1);
        QCOMPARE(errno, EPERM);
        QCOMPARE(connectAbstractSocket(abstractName), -1);
        QCOMPARE(errno, EPERM);
        QString error;
        QVERIFY(!removeDeadSocket(QFile::decodeName(path), &error));
        QVERIFY(QFile::exists(QFile::decodeName(path)));
    }

    void ownAbstractListenerIsAccepted()
    {
        QVERIFY(listenLocally(QByteArray(1, '\0') + uniqueName() + "-own"));
        const int client = connectAbstractSocket(uniqueName() + "-own");
        QVERIFY(client != -1);
        ::close(client);
    }

    void strangerAtOurEndpointIsClosedAtOnce()
    {
        if (!canPlayStranger()) {
            QSKIP("only root can play another user");
        }
        QTemporaryDir directory(QDir::tempPath() + u"/zarvo-XXXXXX"_s);
        const QByteArray path = QFile::encodeName(directory.filePath(u"ours"_s));
        LocalEndpoint endpoint;
        QString error;
        QVERIFY(endpoint.listen(QFile::decodeName(path), &error));
        ::chmod(QFile::encodeName(directory.path()).constData(), 0777);
        ::chmod(path.constData(), 0777); // as if somebody had opened the permissions
        QSignalSpy accepted(&endpoint, &LocalEndpoint::accepted);
        const Stranger stranger([&path] {
            const int client = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address = {};
            address.sun_family = AF_UNIX;
            std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
            if (::connect(client, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
                ::_exit(1);
            }
        });
        QVERIFY(stranger.hasActed());
        const int own = connectLocalSocket(QFile::decodeName(path));
        QVERIFY(own != -1);
        QTRY_COMPARE(accepted.count(), 1); // the stranger came first
        ::close(accepted.first().first().toInt());
        ::close(own);
    }
};

ZARVO_TEST(PeerOwnerTest)

#include "tst_peerowner.moc"
