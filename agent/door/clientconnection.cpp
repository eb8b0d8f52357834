// SPDX-License-Identifier: MIT
#include "agent/door/clientconnection.h"

#include <array>
#include <chrono>
#include <utility>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qint64 kChunkBytes = 64 * 1024;
/** Bytes written that the other side has not taken yet. One direction costs about this and the read buffer. */
constexpr qint64 kMaxUnsentBytes = 256 * 1024;
constexpr qint64 kReadBufferBytes = 256 * 1024;

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

} // namespace

ClientConnection::ClientConnection(int descriptor, const QString &address, QObject *parent)
    : ViewerClient(address, parent)
{
    // Qt takes a local socket as well.
    client.setSocketDescriptor(descriptor);
    client.setReadBufferSize(kReadBufferBytes);
    connect(&client, &QTcpSocket::readyRead, this, &ClientConnection::copyToBackend);
    connect(&client, &QTcpSocket::bytesWritten, this, &ClientConnection::copyToClient);
    connect(&client, &QTcpSocket::disconnected, this, [this] { end(u"The client closed the connection"_s); });
    connect(&opening, &BackendConnection::opened, this, &ClientConnection::Opening_opened);
    connect(&opening, &BackendConnection::failed, this, &ClientConnection::end);
}

ClientConnection::~ClientConnection()
{
    // Their destructors close them, and our slots must not run then.
    client.disconnect(this);
    if (backend) {
        backend->disconnect(this);
    }
}

void ClientConnection::start(const QString &backendPath)
{
    opening.open(backendPath);
}

void ClientConnection::Opening_opened()
{
    QByteArray unread;
    backend = opening.takeSocket(&unread);
    connect(backend.get(), &QLocalSocket::readyRead, this, &ClientConnection::copyToClient);
    connect(backend.get(), &QLocalSocket::bytesWritten, this, &ClientConnection::copyToBackend);
    connect(backend.get(), &QLocalSocket::disconnected, this, [this] { end(u"The X server closed the connection"_s); });
    client.write(unread);
    copyToBackend();
    copyToClient();
}

void ClientConnection::copyToBackend()
{
    if (backend && !isEnded && !copy(&client, backend.get())) {
        end(u"The X server takes no more input"_s);
    }
}

void ClientConnection::copyToClient()
{
    if (backend && !isEnded && !copy(backend.get(), &client)) {
        end(u"The client takes no more output"_s);
    }
}

void ClientConnection::end(const QString &reason)
{
    if (isEnded) {
        return;
    }
    isEnded = true;
    opening.disconnect(this);
    client.abort();
    if (backend) {
        backend->abort();
    }
    emit ended(reason);
}
