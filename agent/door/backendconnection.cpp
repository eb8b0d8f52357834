// SPDX-License-Identifier: MIT
#include "agent/door/backendconnection.h"

#include "support/localendpoint.h"

#include <chrono>
#include <utility>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qint64 kReadBufferBytes = 256 * 1024;
constexpr qsizetype kMaxHandshakeBytes = 1024;
constexpr auto kDeadline = 5s;

} // namespace

BackendConnection::BackendConnection(QObject *parent)
    : QObject(parent)
    , socket(std::make_unique<QLocalSocket>())
{
    connect(socket.get(), &QLocalSocket::readyRead, this, &BackendConnection::Socket_readyRead);
    connect(socket.get(), &QLocalSocket::disconnected, this, [this] { fail(u"The X server closed the connection"_s); });
    connect(&deadline, &QTimer::timeout, this, [this] { fail(u"The X server did not answer"_s); });
    deadline.setSingleShot(true);
}

BackendConnection::~BackendConnection()
{
    if (socket) {
        socket->disconnect(this); // its destructor closes it, and our slots must not run then
    }
}

void BackendConnection::open(const QString &path)
{
    deadline.start(kDeadline);
    const int descriptor = connectLocalSocket(path);
    if (descriptor == -1) {
        deadline.start(0s);
        return;
    }
    socket->setReadBufferSize(kReadBufferBytes);
    socket->setSocketDescriptor(descriptor);
}

std::unique_ptr<QLocalSocket> BackendConnection::takeSocket(QByteArray *unread)
{
    socket->disconnect(this);
    *unread = std::exchange(received, {});
    return std::move(socket);
}

void BackendConnection::Socket_readyRead()
{
    received += socket->read(kMaxHandshakeBytes - received.size());
    handshake.receive(&received);
    socket->write(handshake.output());
    if (handshake.state() == BackendHandshake::State::Done) {
        deadline.stop();
        socket->disconnect(this);
        emit opened();
    } else if (handshake.state() == BackendHandshake::State::Failed || received.size() == kMaxHandshakeBytes) {
        fail(u"The X server refused the connection"_s);
    }
}

void BackendConnection::fail(const QString &reason)
{
    deadline.stop();
    socket->disconnect(this);
    emit failed(reason);
}
