// SPDX-License-Identifier: MIT
#include "agent/door/frontdoor.h"

#include "agent/door/passwordstore.h"
#include "base/logging.h"
#include "support/hostaddress.h"

#include <QHash>

#include <algorithm>
#include <chrono>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr std::chrono::seconds kPauseWithoutDescriptors(1);

// Connections that the kernel keeps until we come to them. They cost nothing else, and the next one is turned away.
constexpr int kQueueLength = 1024;

// Strangers decide how often they are refused, and must not decide how large the log gets.
constexpr std::chrono::seconds kRefusalPause(10);

template <typename T>
std::unique_ptr<T> takeFrom(std::vector<std::unique_ptr<T>> *owners, const T *wanted)
{
    const auto found = std::find_if(owners->begin(), owners->end(),
                                    [wanted](const std::unique_ptr<T> &owner) { return owner.get() == wanted; });
    if (found == owners->end()) {
        return nullptr;
    }
    std::unique_ptr<T> taken = std::move(*found);
    owners->erase(found);
    return taken;
}

} // namespace

FrontDoor::FrontDoor(PasswordStore *passwords_, QString backendPath_, HandshakeLimits limits_, QObject *parent)
    : QObject(parent)
    , passwords(passwords_)
    , backendPath(std::move(backendPath_))
    , limits(limits_)
{
    connect(&server, &QTcpServer::newConnection, this, &FrontDoor::Server_newConnection);
    connect(&server, &QTcpServer::acceptError, this, &FrontDoor::Server_acceptError);
    connect(&refusalPause, &QTimer::timeout, this, &FrontDoor::RefusalPause_timeout);
    refusalPause.setSingleShot(true);
    refusalPause.setInterval(kRefusalPause);
}

FrontDoor::~FrontDoor() = default;

bool FrontDoor::listen(quint16 port, QString *error)
{
    // One socket for both families; where the machine has IPv6 switched off, for the one that it has.
    server.setListenBacklogSize(kQueueLength);
    bool isListening = server.listen(QHostAddress::Any, port);
    if (!isListening && server.serverError() != QAbstractSocket::AddressInUseError) {
        isListening = server.listen(QHostAddress::AnyIPv4, port);
    }
    if (!isListening) {
        *error = u"Failed to listen on port %1: %2"_s.arg(port).arg(server.errorString());
        return false;
    }
    server.pauseAccepting();
    return true;
}

void FrontDoor::open()
{
    isOpen = true;
    server.resumeAccepting();
}

void FrontDoor::close()
{
    isOpen = false;
    server.close();
    handshakes.clear();
}

void FrontDoor::disconnectClients()
{
    const std::vector<std::unique_ptr<ClientConnection>> leaving = std::exchange(clients, {});
    QStringList addresses;
    for (const std::unique_ptr<ClientConnection> &client : leaving) {
        addresses.append(withoutIPv4Mapping(client->address()).toString());
    }
    if (!addresses.isEmpty()) {
        emit clientsDisconnected(addresses);
    }
}

void FrontDoor::Server_newConnection()
{
    while (server.hasPendingConnections()) {
        std::unique_ptr<QTcpSocket> socket(server.nextPendingConnection());
        socket->setParent(nullptr);
        if (!isOpen || clients.size() >= kMaxClients) {
            continue;
        }
        addHandshake(std::move(socket));
        if (handshakes.size() > kMaxHandshakes) {
            dropHandshake();
        }
    }
}

void FrontDoor::Server_acceptError()
{
    // The server has paused itself: without a free descriptor it would try again for ever.
    logMessage(LogWarning, u"Failed to accept a connection: %1"_s.arg(server.errorString()));
    QTimer::singleShot(kPauseWithoutDescriptors, this, [this] {
        if (isOpen) {
            server.resumeAccepting();
        }
    });
}

void FrontDoor::addHandshake(std::unique_ptr<QTcpSocket> socket)
{
    auto handshake = std::make_unique<HandshakeConnection>(std::move(socket), passwords, &limiter, limits);
    HandshakeConnection *const raw = handshake.get();
    connect(raw, &HandshakeConnection::authenticated, this,
            [this, raw](const QByteArray &password) { addClient(raw, password); });
    connect(raw, &HandshakeConnection::failed, this, [this, raw](const QString &reason) {
        if (!reason.isEmpty()) {
            logRefusal(raw->address(), reason);
        }
        removeHandshake(raw);
    });
    handshakes.push_back(std::move(handshake));
}

void FrontDoor::logRefusal(const QHostAddress &address, const QString &reason)
{
    if (refusalPause.isActive()) {
        ++unloggedRefusals;
        return;
    }
    logMessage(LogInfo, u"Refused a client from %1: %2"_s.arg(withoutIPv4Mapping(address).toString(), reason));
    refusalPause.start();
}

void FrontDoor::RefusalPause_timeout()
{
    if (unloggedRefusals > 0) {
        logMessage(LogInfo, u"Refused %1 more clients"_s.arg(unloggedRefusals));
        unloggedRefusals = 0;
        refusalPause.start();
    }
}

void FrontDoor::addClient(HandshakeConnection *handshake, const QByteArray &password)
{
    QByteArray unread;
    std::unique_ptr<QTcpSocket> socket = handshake->takeSocket(&unread);
    auto client = std::make_unique<ClientConnection>(std::move(socket), unread);
    removeHandshake(handshake);
    ClientConnection *const raw = client.get();
    connect(raw, &ClientConnection::ended, this, [this, raw](const QString &reason) { removeClient(raw, reason); });
    clients.push_back(std::move(client));
    emit clientAuthenticated(withoutIPv4Mapping(raw->address()).toString(), password);
    raw->start(backendPath);
}

void FrontDoor::removeHandshake(const HandshakeConnection *handshake)
{
    if (std::unique_ptr<HandshakeConnection> removed = takeFrom(&handshakes, handshake)) {
        removed.release()->deleteLater(); // we are in its signal
    }
}

// The newest one counts: a host that has most of the places gets no further one.
void FrontDoor::dropHandshake()
{
    QHash<QHostAddress, int> counts;
    for (const std::unique_ptr<HandshakeConnection> &handshake : handshakes) {
        ++counts[countedAddress(handshake->address())];
    }
    const int most = *std::max_element(counts.cbegin(), counts.cend());
    const auto oldest = std::find_if(handshakes.begin(), handshakes.end(), [&](const auto &handshake) {
        return counts.value(countedAddress(handshake->address())) == most;
    });
    logRefusal((*oldest)->address(), u"Others came while it took its time"_s);
    handshakes.erase(oldest);
}

void FrontDoor::removeClient(const ClientConnection *client, const QString &reason)
{
    std::unique_ptr<ClientConnection> removed = takeFrom(&clients, client);
    if (!removed) {
        return;
    }
    const QString address = withoutIPv4Mapping(removed->address()).toString();
    removed.release()->deleteLater(); // we are in its signal
    logMessage(LogInfo, u"Lost a client from %1: %2"_s.arg(address, reason));
    emit clientsDisconnected({address});
}
