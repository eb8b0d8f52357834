// SPDX-License-Identifier: MIT
#include "agent/door/confinedclient.h"

#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"
#include "agent/door/reception.h"

#include <QSocketNotifier>

#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** Closes a socket for every process that has it. */
void shutAndClose(int *descriptor)
{
    if (*descriptor != -1) {
        ::shutdown(*descriptor, SHUT_RDWR);
        ::close(std::exchange(*descriptor, -1));
    }
}

} // namespace

ConfinedClient::ConfinedClient(const Visit &visit_, const QString &address, Reception *reception_, QObject *parent)
    : ViewerClient(address, parent)
    , visit(visit_)
    , reception(reception_)
    , notifier(std::make_unique<QSocketNotifier>(visit.control, QSocketNotifier::Read))
{
    // The process has nothing more to say. It ends when the viewer leaves, and that closes the socket.
    connect(notifier.get(), &QSocketNotifier::activated, this, [this] { end(u"The client closed the connection"_s); });
    connect(&opening, &BackendConnection::opened, this, &ConfinedClient::Opening_opened);
    connect(&opening, &BackendConnection::failed, this, &ConfinedClient::end);
}

ConfinedClient::~ConfinedClient()
{
    closeAll();
}

void ConfinedClient::start(const QString &backendPath)
{
    opening.open(backendPath);
}

void ConfinedClient::Opening_opened()
{
    QByteArray unread;
    std::unique_ptr<QLocalSocket> socket = opening.takeSocket(&unread);
    socket->flush(); // the end of the handshake may be in its buffer
    backend = ::fcntl(static_cast<int>(socket->socketDescriptor()), F_DUPFD_CLOEXEC, 0);
    // The X server sends nothing before the viewer's first message.
    const bool isEarly = !unread.isEmpty() || socket->bytesAvailable() > 0;
    socket->close();                 // it must read no more
    socket.release()->deleteLater(); // we are in its signal
    if (backend == -1 || isEarly || !sendPacket(visit.control, std::string{DoorPacket::kBackend}, {backend})) {
        end(u"The X server could not be handed on"_s);
    }
}

void ConfinedClient::end(const QString &reason)
{
    if (visit.client == -1) {
        return;
    }
    opening.disconnect(this);
    closeAll();
    emit ended(reason);
}

void ConfinedClient::closeAll()
{
    notifier.reset();
    if (visit.client != -1) {
        reception->end(visit.id);
    }
    shutAndClose(&visit.client);
    shutAndClose(&backend);
    shutAndClose(&visit.control);
}
