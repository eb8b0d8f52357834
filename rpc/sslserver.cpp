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
 * Descriptors that strangers who just connect do not get. The system gives the lowest free number, so a high one says
 * that there are few left; what the requests of those who are let in need would abort the process without.
 */
constexpr qintptr kReservedDescriptors = 64;

/** The first descriptor that is too high for a client. Where there are few, half of them are for clients. */
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
    // Out of descriptors, Qt stops accepting for good; clients that go make room again.
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
            logMessage(LogWarning, u"Closed a connection at once: the file descriptors that are left are for the "
                                   "clients that are inside"_s);
        }
        ::close(static_cast<int>(socketDescriptor));
        return;
    }
    auto *socket = new ClientSocket(this);
    connect(socket, &ClientSocket::encrypted, this, &SslServer::socketEncrypted);
    // Qt neither goes on nor hangs up after what is no TLS, and the client would wait for ever. Queued, because Qt
    // tells it in the middle of its work.
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

    // An answer is one piece; waiting for more to send with it would only delay it.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);

    QSslConfiguration configuration = socket->sslConfiguration();
    configuration.setPrivateKey(privateKey);
    configuration.setLocalCertificateChain(QList{localCertificate} + extraCertificates);
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    // No authority is trusted, so none is named in the request: a client that is shown names which do not fit its
    // certificate may hold the certificate back.
    configuration.setCaCertificates({});
    // Every connection has keys of its own for them, so a ticket could never be used; making two takes a tenth of the
    // whole handshake.
    configuration.setSslOption(QSsl::SslOptionDisableSessionTickets, true);
    socket->setSslConfiguration(configuration);
    socket->ignoreSslErrors();
    socket->startServerEncryption();
    if (socket->error() != QAbstractSocket::UnknownSocketError) {
        // Not the client's fault, and without this it would wait for ever. Qt has no word about the reason.
        logMessage(LogWarning, u"Failed to start TLS: the certificate and the private key may not belong together"_s);
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
    logMessage(LogWarning, u"A unverified client attempted to connect from \"%1\" port \"%2\""_s.arg(
                               socket->peerName(), QString::number(socket->peerPort())));
    // Queued, so that the last part of the handshake gets out first and the client does not take it for a broken one.
    QMetaObject::invokeMethod(
        socket, [socket] { socket->close(); }, Qt::QueuedConnection);
}
