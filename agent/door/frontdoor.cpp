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

/** Connections that the kernel queues until we accept them. It takes no further ones. */
constexpr int kMaxQueuedConnections = 1024;

/** Anybody can cause refusals, so the log must not grow with each of them. */
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
    connect(&listener, &QTcpServer::newConnection, this, &FrontDoor::Listener_newConnection);
    connect(&listener, &QTcpServer::acceptError, this, &FrontDoor::Listener_acceptError);
    connect(&refusalPause, &QTimer::timeout, this, &FrontDoor::RefusalPause_timeout);
    refusalPause.setSingleShot(true);
    refusalPause.setInterval(kRefusalPause);
}

FrontDoor::~FrontDoor() = default;

bool FrontDoor::listen(quint16 port, QString *error)
{
    // One socket for both address families, or for IPv4 alone where IPv6 is switched off.
    listener.setListenBacklogSize(kMaxQueuedConnections);
    bool isListening = listener.listen(QHostAddress::Any, port);
    if (!isListening && listener.serverError() != QAbstractSocket::AddressInUseError) {
        isListening = listener.listen(QHostAddress::AnyIPv4, port);
    }
    if (!isListening) {
        *error = u"Failed to listen on port %1: %2"_s.arg(port).arg(listener.errorString());
        return false;
    }
    listener.pauseAccepting();
    return true;
}

void FrontDoor::open()
{
    isOpen = true;
    listener.resumeAccepting();
}

void FrontDoor::close()
{
    isOpen = false;
    listener.close();
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

void FrontDoor::Listener_newConnection()
{
    while (listener.hasPendingConnections()) {
        std::unique_ptr<QTcpSocket> socket(listener.nextPendingConnection());
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

void FrontDoor::Listener_acceptError()
{
    // QTcpServer has paused itself. Without a free descriptor it would fail again and again.
    logMessage(LogWarning, u"Failed to accept a connection: %1"_s.arg(listener.errorString()));
    QTimer::singleShot(kPauseWithoutDescriptors, this, [this] {
        if (isOpen) {
            listener.resumeAccepting();
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

/** The newest handshake counts too, so that a host with most of the places gets no further one. */
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
