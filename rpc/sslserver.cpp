// SPDX-License-Identifier: MIT
#include "rpc/sslserver.h"

#include "base/logging.h"
#include "rpc/clientsocket.h"
#include "rpc/silentconnection.h"
#include "rpc/tlsrules.h"
#include "support/peerowner.h"

#include <QSslConfiguration>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** How long no connection is accepted after the system refused one. */
constexpr auto kAcceptPause = 1s;

/**
 * Descriptors that connecting clients never get, because the requests of admitted clients need some and the process
 * aborts without them. The system assigns the lowest free number, so a high number means that few are left.
 */
constexpr qintptr kReservedDescriptors = 64;

/** The lowest descriptor that no client gets. If the limit is low, clients get half of all descriptors. */
qintptr firstReservedDescriptor()
{
    rlimit limit = {};
    const qintptr all = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? static_cast<qintptr>(limit.rlim_cur) : 1024;
    return std::max(all / 2, all - kReservedDescriptors);
}

/** After so many the event loop handles other events: strangers cost 0.1 ms, clients with their TLS a few. */
constexpr int kMaxAcceptedAtOnce = 32;

/**
 * How many connections the system keeps until they are accepted. When there are more, a client only gets in when it
 * tries again after a second. The most that the system allows, because strangers can make thousands in that time.
 */
constexpr int kBacklog = 4096;

QHostAddress peerAddress(int socketDescriptor)
{
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    auto *const name = reinterpret_cast<sockaddr *>(&address);
    return ::getpeername(socketDescriptor, name, &size) == 0 ? QHostAddress(name) : QHostAddress();
}

} // namespace

SslServer::SslServer(QObject *parent)
    : QTcpServer(parent)
{
    setListenBacklogSize(kBacklog);
    acceptTimer.setSingleShot(true);
    connect(&acceptTimer, &QTimer::timeout, this, &SslServer::acceptMore);
    connect(&handshakeTimer, &QTimer::timeout, this, &SslServer::beginNextHandshake);
    // Qt stops accepting for good when there is no descriptor left. Resume, because leaving clients free some.
    connect(this, &QTcpServer::acceptError, this,
            [this] { QTimer::singleShot(kAcceptPause, this, &QTcpServer::resumeAccepting); });
}

SslServer::~SslServer()
{
    close(); // deletes pending sockets, which tell us so while the members exist
}

void SslServer::setPrivateKey(const QSslKey &key)
{
    privateKey = key;
}

void SslServer::setLocalCertificate(const QSslCertificate &certificate)
{
    localCertificate = certificate;
}

void SslServer::setExtraCertificates(const QList<QSslCertificate> &certificates)
{
    extraCertificates = certificates;
}

void SslServer::incomingConnection(qintptr socketDescriptor)
{
    pauseAfterMany();
    if (closeIfFull(socketDescriptor)) {
        return;
    }
    const int descriptor = static_cast<int>(socketDescriptor);
    if (findTcpPeer(descriptor) != TcpPeer::Ours) {
        receiveStranger(descriptor);
    } else if (ClientSocket *socket = addClient(descriptor)) {
        addPendingConnection(socket);
    }
}

/**
 * Qt accepts as long as clients connect. The event loop must go on before that, or a stranger who connects without a
 * pause would stop the server. Without room for pending connections Qt stops accepting.
 */
void SslServer::pauseAfterMany()
{
    acceptTimer.start();
    if (++acceptedAtOnce >= kMaxAcceptedAtOnce) {
        setMaxPendingConnections(0);
    }
}

void SslServer::acceptMore()
{
    if (std::exchange(acceptedAtOnce, 0) >= kMaxAcceptedAtOnce && isListening()) {
        setMaxPendingConnections(kMaxAcceptedAtOnce);
        resumeAccepting();
    }
}

bool SslServer::closeIfFull(qintptr socketDescriptor)
{
    const bool wasFull = std::exchange(isFull, socketDescriptor >= firstReservedDescriptor());
    if (!isFull) {
        return false;
    }
    if (!wasFull) {
        logStrangerMessage(LogWarning, u"Closed a connection at once: the file descriptors that are left are for "
                                       "the clients that are inside"_s);
    }
    ::close(static_cast<int>(socketDescriptor));
    return true;
}

void SslServer::receiveStranger(int socketDescriptor)
{
    const StrangerLimit::Id id = limit.add(peerAddress(socketDescriptor));
    auto *silent = new SilentConnection(socketDescriptor, this);
    strangers.insert(id, {silent, nullptr});
    connect(silent, &SilentConnection::spoke, this, [this, id] {
        speakers.enqueue(id);
        handshakeTimer.start();
    });
    closeExcess();
}

void SslServer::closeExcess()
{
    const std::optional<StrangerLimit::Id> id = limit.excess();
    if (!id) {
        return;
    }
    const Stranger stranger = strangers.value(*id);
    removeStranger(*id);
    logStrangerMessage(LogWarning,
                       u"Closed the oldest connection of a host that has too many without the certificate"_s);
    if (stranger.socket) {
        stranger.socket->abort();
    } else {
        delete stranger.silent;
    }
}

/** One for each turn of the event loop, because a handshake takes milliseconds and the owner must not wait for many. */
void SslServer::beginNextHandshake()
{
    while (!speakers.isEmpty() && !strangers.contains(speakers.first())) {
        speakers.dequeue(); // closed meanwhile
    }
    if (speakers.isEmpty()) {
        handshakeTimer.stop();
        return;
    }
    const StrangerLimit::Id id = speakers.dequeue();
    // Released at the end, when the handler holds the idle timer as well.
    const std::unique_ptr<SilentConnection> silent(std::exchange(strangers[id].silent, nullptr));
    ClientSocket *socket = silent->isOver() ? nullptr : addClient(silent->takeDescriptor());
    if (!socket) {
        removeStranger(id);
        return;
    }
    strangers[id].socket = socket;
    connect(socket, &ClientSocket::disconnected, this, [this, id] { removeStranger(id); });
    connect(socket, &QObject::destroyed, this, [this, id] { removeStranger(id); });
    connect(socket, &ClientSocket::encrypted, this, [this, id, socket] {
        if (socket->isAdmitted()) {
            removeStranger(id);
        }
    });
    addPendingConnection(socket);
    // By name, because only Qt itself can name the signal's private argument.
    QMetaObject::invokeMethod(this, "newConnection", Qt::DirectConnection);
}

void SslServer::removeStranger(StrangerLimit::Id id)
{
    strangers.remove(id);
    limit.remove(id);
}

ClientSocket *SslServer::addClient(qintptr socketDescriptor)
{
    auto socket = std::make_unique<ClientSocket>(this);
    connect(socket.get(), &ClientSocket::encrypted, this, &SslServer::socketEncrypted);
    // If the client does not speak TLS, Qt neither continues nor closes the connection, and the client would wait for
    // ever. Queued, because Qt reports this in the middle of its work.
    connect(
        socket.get(), &ClientSocket::errorOccurred, socket.get(),
        [client = socket.get()](QAbstractSocket::SocketError error) {
            if (error == QAbstractSocket::SslInternalError) {
                client->abort();
            }
        },
        Qt::QueuedConnection);
    if (!socket->setSocketDescriptor(socketDescriptor)) {
        ::close(static_cast<int>(socketDescriptor));
        return nullptr;
    }
    // Send at once: an answer is written as one piece, so there is nothing to collect.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    return startTls(socket.get()) ? socket.release() : nullptr;
}

bool SslServer::startTls(ClientSocket *socket)
{
    QSslConfiguration configuration = socket->sslConfiguration();
    requireStrongTls(&configuration);
    configuration.setPrivateKey(privateKey);
    configuration.setLocalCertificateChain(QList{localCertificate} + extraCertificates);
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    // Name no authority in the certificate request: some clients hold back a certificate that none of the named
    // authorities has signed.
    configuration.setCaCertificates({});
    // Tickets are useless, because each connection encrypts them with a key of its own. Making two takes a tenth of the
    // whole handshake.
    configuration.setSslOption(QSsl::SslOptionDisableSessionTickets, true);
    socket->setSslConfiguration(configuration);
    socket->ignoreSslErrors();
    socket->startServerEncryption();
    if (socket->error() != QAbstractSocket::UnknownSocketError) {
        // Close at once, or the client would wait for ever. Qt does not report the reason.
        logStrangerMessage(LogWarning,
                           u"Failed to start TLS: the certificate and the private key may not belong together"_s);
        return false;
    }
    return true;
}

void SslServer::socketEncrypted()
{
    auto *socket = qobject_cast<ClientSocket *>(sender());
    if (!socket) {
        return;
    }
    if (socket->peerCertificate() == localCertificate) {
        socket->admit();
        return;
    }
    logStrangerMessage(LogWarning, u"A unverified client attempted to connect from \"%1\" port \"%2\""_s,
                       socket->peerName(), QString::number(socket->peerPort()));
    // Queued, so that the end of the handshake is sent first. Otherwise the client would see a failed handshake.
    QMetaObject::invokeMethod(
        socket, [socket] { socket->close(); }, Qt::QueuedConnection);
}
