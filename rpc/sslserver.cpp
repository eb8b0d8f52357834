// SPDX-License-Identifier: MIT
#include "rpc/sslserver.h"

#include "base/logging.h"
#include "rpc/clientsocket.h"

#include <QSslConfiguration>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <utility>

#include <sys/resource.h>
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

} // namespace

SslServer::SslServer(QObject *parent)
    : QTcpServer(parent)
{
    // Qt stops accepting for good when there is no descriptor left. Resume, because leaving clients free some.
    connect(this, &QTcpServer::acceptError, this,
            [this] { QTimer::singleShot(kAcceptPause, this, &QTcpServer::resumeAccepting); });
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
    const bool wasFull = std::exchange(isFull, socketDescriptor >= firstReservedDescriptor());
    if (isFull) {
        if (!wasFull) {
            logStrangerMessage(LogWarning, u"Closed a connection at once: the file descriptors that are left are for "
                                           "the clients that are inside"_s);
        }
        ::close(static_cast<int>(socketDescriptor));
        return;
    }
    auto *socket = new ClientSocket(this);
    connect(socket, &ClientSocket::encrypted, this, &SslServer::socketEncrypted);
    // If the client does not speak TLS, Qt neither continues nor closes the connection, and the client would wait for
    // ever. Queued, because Qt reports this in the middle of its work.
    connect(
        socket, &ClientSocket::errorOccurred, socket,
        [socket](QAbstractSocket::SocketError error) {
            if (error == QAbstractSocket::SslInternalError) {
                socket->abort();
            }
        },
        Qt::QueuedConnection);
    if (!socket->setSocketDescriptor(socketDescriptor)) {
        delete socket;
        ::close(static_cast<int>(socketDescriptor));
        return;
    }

    // Send at once: an answer is written as one piece, so there is nothing to collect.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);

    QSslConfiguration configuration = socket->sslConfiguration();
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
        delete socket;
        return;
    }
    addPendingConnection(socket);
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
