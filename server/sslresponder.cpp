// SPDX-License-Identifier: MIT
#include "server/sslresponder.h"

#include "rpc/handler.h"
#include "rpc/sslserver.h"
#include "server/handlerfactory.h"

#include <QTcpSocket>

namespace {

/** How much of a client's data is buffered until the system makes the client wait. */
constexpr qint64 kReadBufferBytes = 1048576;

} // namespace

SslResponder::SslResponder(HandlerFactory *factory_, QObject *parent)
    : QObject(parent)
    , factory(factory_)
{
}

void SslResponder::newConnection()
{
    auto *server = qobject_cast<SslServer *>(sender());
    if (!server) {
        return;
    }
    while (QTcpSocket *socket = server->nextPendingConnection()) {
        socket->setReadBufferSize(kReadBufferBytes);
        Handler *handler = factory->createHandler(socket);
        handler->setParent(socket);
        connect(socket, &QAbstractSocket::disconnected, handler, &Handler::retire);
    }
}
