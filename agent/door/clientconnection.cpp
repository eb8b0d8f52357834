// SPDX-License-Identifier: MIT
#include "agent/door/clientconnection.h"

#include "support/localendpoint.h"

#include <array>
#include <chrono>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qint64 kChunkBytes = 64 * 1024;
/** Bytes written that the other side has not taken yet. One direction costs about this and the read buffer. */
constexpr qint64 kMaxUnsentBytes = 256 * 1024;
constexpr qint64 kReadBufferBytes = 256 * 1024;
constexpr qsizetype kMaxHandshakeBytes = 1024;
constexpr auto kBackendDeadline = 5s;

/**
 * A client whose machine has vanished is noticed after 90 seconds of silence, or after 60 seconds in which it confirms
 * no bytes that we send.
 */
constexpr int kKeepaliveIdleSeconds = 60;
constexpr int kKeepaliveIntervalSeconds = 10;
constexpr int kKeepaliveProbes = 3;
constexpr int kUnconfirmedMilliseconds = 60000;

/** Copies as many bytes as fit. @return false when @p to takes none */
bool copy(QIODevice *from, QIODevice *to)
{
    static std::array<char, kChunkBytes> buffer; // main thread only
    while (from->bytesAvailable() > 0 && to->bytesToWrite() < kMaxUnsentBytes) {
        const qint64 length = from->read(buffer.data(), kChunkBytes);
        if (length <= 0) {
            return true;
        }
        if (to->write(buffer.data(), length) != length) {
            return false;
        }
    }
    return true;
}

void setTcpOption(int socket, int option, int value)
{
    ::setsockopt(socket, IPPROTO_TCP, option, &value, sizeof value);
}

} // namespace

ClientConnection::ClientConnection(std::unique_ptr<QTcpSocket> client_, QByteArray unread, QObject *parent)
    : QObject(parent)
    , client(std::move(client_))
    , peer(client->peerAddress())
    , fromClient(std::move(unread))
{
    configureClientSocket();
    connect(client.get(), &QTcpSocket::readyRead, this, &ClientConnection::copyToBackend);
    connect(client.get(), &QTcpSocket::bytesWritten, this, &ClientConnection::copyToClient);
    connect(client.get(), &QTcpSocket::disconnected, this, [this] { end(u"The client closed the connection"_s); });
    connect(&backend, &QLocalSocket::readyRead, this, &ClientConnection::Backend_readyRead);
    connect(&backend, &QLocalSocket::bytesWritten, this, &ClientConnection::copyToBackend);
    connect(&backend, &QLocalSocket::disconnected, this, [this] { end(u"The X server closed the connection"_s); });
    connect(&deadline, &QTimer::timeout, this, [this] { end(u"The X server did not answer"_s); });
    deadline.setSingleShot(true);
}

ClientConnection::~ClientConnection()
{
    // Their destructors close them, and our slots must not run then.
    client->disconnect(this);
    backend.disconnect(this);
}

void ClientConnection::configureClientSocket()
{
    client->setReadBufferSize(kReadBufferBytes);
    client->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    client->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    const int descriptor = static_cast<int>(client->socketDescriptor());
    setTcpOption(descriptor, TCP_KEEPIDLE, kKeepaliveIdleSeconds);
    setTcpOption(descriptor, TCP_KEEPINTVL, kKeepaliveIntervalSeconds);
    setTcpOption(descriptor, TCP_KEEPCNT, kKeepaliveProbes);
    setTcpOption(descriptor, TCP_USER_TIMEOUT, kUnconfirmedMilliseconds);
}

void ClientConnection::start(const QString &backendPath)
{
    deadline.start(kBackendDeadline);
    const int descriptor = connectLocalSocket(backendPath);
    if (descriptor == -1) {
        deadline.start(0s);
        return;
    }
    backend.setReadBufferSize(kReadBufferBytes);
    backend.setSocketDescriptor(descriptor);
}

void ClientConnection::Backend_readyRead()
{
    if (isRelaying) {
        copyToClient();
        return;
    }
    if (isEnded) {
        return;
    }
    fromBackend += backend.read(kMaxHandshakeBytes - fromBackend.size());
    handshake.receive(&fromBackend);
    backend.write(handshake.output());
    if (handshake.state() == BackendHandshake::State::Done) {
        beginRelay();
    } else if (handshake.state() == BackendHandshake::State::Failed || fromBackend.size() == kMaxHandshakeBytes) {
        end(u"The X server refused the connection"_s);
    }
}

void ClientConnection::beginRelay()
{
    deadline.stop();
    isRelaying = true;
    backend.write(std::exchange(fromClient, {}));
    client->write(std::exchange(fromBackend, {}));
    copyToBackend();
    copyToClient();
}

void ClientConnection::copyToBackend()
{
    if (isRelaying && !isEnded && !copy(client.get(), &backend)) {
        end(u"The X server takes no more input"_s);
    }
}

void ClientConnection::copyToClient()
{
    if (isRelaying && !isEnded && !copy(&backend, client.get())) {
        end(u"The client takes no more output"_s);
    }
}

void ClientConnection::end(const QString &reason)
{
    if (isEnded) {
        return;
    }
    isEnded = true;
    deadline.stop();
    client->abort();
    backend.abort();
    emit ended(reason);
}
