// SPDX-License-Identifier: MIT
#include "agent/door/frontdoor.h"

#include "agent/door/clientconnection.h"
#include "agent/door/doorkey.h"
#include "agent/door/eviction.h"
#include "agent/door/reception.h"
#include "base/logging.h"
#include "support/hostaddress.h"

#include <QRandomGenerator>

#include <algorithm>
#include <chrono>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr std::chrono::seconds kPauseWithoutDescriptors(1);

/** Connections that the kernel queues until we accept them. It takes no further ones. */
constexpr int kMaxQueuedConnections = 1024;

/** Anybody can cause refusals, so the log must not grow with each of them. */
constexpr std::chrono::seconds kRefusalPause(10);

QHostAddress peerAddressOf(int socket)
{
    sockaddr_storage storage = {};
    socklen_t size = sizeof storage;
    ::getpeername(socket, reinterpret_cast<sockaddr *>(&storage), &size);
    return QHostAddress(reinterpret_cast<const sockaddr *>(&storage));
}

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

FrontDoor::FrontDoor(const HandshakeHelpers &helpers_, QString backendPath_, DoorRules rules_, QObject *parent)
    : QObject(parent)
    , helpers(helpers_)
    , backendPath(std::move(backendPath_))
    , rules(std::move(rules_))
{
    helpers.limiter = &limiter;
    connect(&listener, &TcpListener::accepted, this, &FrontDoor::Listener_accepted);
    connect(&listener, &TcpListener::acceptError, this, &FrontDoor::Listener_acceptError);
    connect(&refusalPause, &QTimer::timeout, this, &FrontDoor::RefusalPause_timeout);
    connect(&receptionTurn, &QTimer::timeout, this, &FrontDoor::ReceptionTurn_timeout);
    receptionTurn.setInterval(kReceptionTurn);
    refusalPause.setSingleShot(true);
    refusalPause.setInterval(kRefusalPause);
}

FrontDoor::~FrontDoor() = default;

bool FrontDoor::listen(const QHostAddress &address, quint16 port, QString *error)
{
    // "Any" is one socket for both address families. Where IPv6 is switched off, it is one for IPv4 alone.
    listener.setListenBacklogSize(kMaxQueuedConnections);
    bool isListening = listener.listen(address, port);
    if (!isListening && address == QHostAddress::Any && listener.serverError() != QAbstractSocket::AddressInUseError) {
        isListening = listener.listen(QHostAddress::AnyIPv4, port);
    }
    if (!isListening) {
        *error = u"Failed to listen on port %1: %2"_s.arg(port).arg(listener.errorString());
        return false;
    }
    listener.pauseAccepting();
    return true;
}

bool FrontDoor::listenLocally(const QString &path, QString *error)
{
    localEndpoint = std::make_unique<LocalEndpoint>();
    connect(localEndpoint.get(), &LocalEndpoint::accepted, this, &FrontDoor::LocalEndpoint_accepted);
    return localEndpoint->listen(path, error);
}

void FrontDoor::open()
{
    isOpen = true;
    if (listener.isListening()) {
        listener.resumeAccepting();
    }
}

void FrontDoor::close()
{
    isOpen = false;
    listener.close();
    localEndpoint.reset();
    handshakes.clear();
    localHandshakes.clear();
}

void FrontDoor::disconnectClients()
{
    // A visitor that has used its password but has not been told yet counts as a client. No handshake goes on, because
    // its visitor knew a password from before.
    const Handshakes waiting = std::exchange(handshakes, {});
    QStringList addresses;
    for (const std::unique_ptr<HandshakeConnection> &handshake : waiting) {
        handshake->abandon();
        if (handshake->isAccepted()) {
            const QString address = withoutIPv4Mapping(handshake->visitor().address).toString();
            emit clientAuthenticated(address, handshake->password());
            addresses.append(address);
        }
    }
    const std::vector<std::unique_ptr<ViewerClient>> leaving = std::exchange(clients, {});
    for (const std::unique_ptr<ViewerClient> &client : leaving) {
        addresses.append(client->address());
    }
    if (!addresses.isEmpty()) {
        emit clientsDisconnected(addresses);
    }
}

void FrontDoor::Listener_accepted(int descriptor)
{
    Visitor visitor;
    visitor.address = peerAddressOf(descriptor);
    visitor.peer = rules.findPeer(descriptor);
    visitor.mayBePlain = rules.allowPlainFromNetwork || withoutIPv4Mapping(visitor.address).isLoopback();
    if (!isOpen || !admits(visitor)) {
        ::close(descriptor);
        return;
    }
    addHandshake(descriptor, visitor);
    keepStrangersWithin(kMaxStrangers, false);
}

bool FrontDoor::admits(const Visitor &visitor)
{
    if (visitor.peer == TcpPeer::OtherUser && !rules.allowLocalUsers) {
        logRefusal(visitor.address, u"It belongs to another user of this host"_s);
        return false;
    }
    const qsizetype own = std::count_if(handshakes.cbegin(), handshakes.cend(),
                                        [](const auto &handshake) { return handshake->visitor().isOurs(); });
    return clients.size() < kMaxClients && (!visitor.isOurs() || own < kMaxOwn);
}

void FrontDoor::LocalEndpoint_accepted(int descriptor)
{
    if (clients.size() >= kMaxClients || localHandshakes.size() >= static_cast<size_t>(kMaxOwn)) {
        ::close(descriptor);
        return;
    }
    localHandshakes.push_back(std::make_unique<LocalHandshake>(descriptor));
    LocalHandshake *const raw = localHandshakes.back().get();
    const auto remove = [this, raw] {
        takeFrom(&localHandshakes, raw).release()->deleteLater(); // we are in its signal
    };
    connect(raw, &LocalHandshake::failed, this, remove);
    connect(raw, &LocalHandshake::agreed, this, [this, raw, remove] {
        const int client = raw->takeClient();
        remove();
        addClient(std::make_unique<ClientConnection>(client, u"local"_s), {});
    });
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

void FrontDoor::addHandshake(int descriptor, const Visitor &visitor)
{
    if (helpers.key->refresh()) {
        helpers.reception->setCertificate(helpers.key->certificatePem());
    }
    auto handshake = std::make_unique<HandshakeConnection>(descriptor, visitor, helpers, rules.limits);
    HandshakeConnection *const raw = handshake.get();
    connect(raw, &HandshakeConnection::authenticated, this,
            [this, raw](const QByteArray &password) { addAuthenticated(raw, password); });
    connect(raw, &HandshakeConnection::failed, this, [this, raw](const QString &reason) {
        if (!reason.isEmpty()) {
            logRefusal(raw->visitor().address, reason);
        }
        removeHandshake(raw);
    });
    connect(raw, &HandshakeConnection::knocked, this, [this, raw] {
        if (raw->visitor().isOurs()) {
            raw->receive();
        } else {
            receiveStrangers();
        }
    });
    connect(raw, &HandshakeConnection::received, this, [this] { keepStrangersWithin(kMaxReceived, true); });
    handshakes.push_back(std::move(handshake));
}

/** Serves those that wait, as many as may be now. */
void FrontDoor::receiveStrangers()
{
    while (receptionsLeft > 0) {
        QList<QHostAddress> addresses;
        QList<HandshakeConnection *> waiting;
        for (const std::unique_ptr<HandshakeConnection> &handshake : handshakes) {
            if (handshake->isWaiting()) {
                addresses.append(handshake->visitor().address);
                waiting.append(handshake.get());
            }
        }
        if (waiting.isEmpty()) {
            break;
        }
        --receptionsLeft;
        waiting[chooseServed(addresses, QRandomGenerator::global())]->receive();
    }
    if (receptionsLeft < kReceivedAtOnce && !receptionTurn.isActive()) {
        receptionTurn.start();
    }
}

void FrontDoor::ReceptionTurn_timeout()
{
    receptionsLeft = std::min(receptionsLeft + kReceivedPerTurn, kReceivedAtOnce);
    receiveStrangers();
    if (receptionsLeft == kReceivedAtOnce) {
        receptionTurn.stop();
    }
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

void FrontDoor::addAuthenticated(HandshakeConnection *handshake, const QByteArray &password)
{
    const QString address = withoutIPv4Mapping(handshake->visitor().address).toString();
    const bool usesTls = handshake->usesTls();
    const Visit visit = handshake->takeVisit();
    removeHandshake(handshake);
    if (usesTls) {
        addClient(std::make_unique<ConfinedClient>(visit, address, helpers.reception), password);
        return;
    }
    helpers.reception->end(visit.id); // its process has done its part
    ::close(visit.control);
    addClient(std::make_unique<ClientConnection>(visit.client, address), password);
}

void FrontDoor::addClient(std::unique_ptr<ViewerClient> client, const QByteArray &password)
{
    ViewerClient *const raw = client.get();
    connect(raw, &ViewerClient::ended, this, [this, raw](const QString &reason) { removeClient(raw, reason); });
    clients.push_back(std::move(client));
    emit clientAuthenticated(raw->address(), password);
    raw->start(backendPath);
}

void FrontDoor::removeHandshake(const HandshakeConnection *handshake)
{
    if (std::unique_ptr<HandshakeConnection> removed = takeFrom(&handshakes, handshake)) {
        removed.release()->deleteLater(); // we are in its signal
    }
}

/** The newest one counts too, so that a network with most of the places gets no further one. */
void FrontDoor::keepStrangersWithin(qsizetype limit, bool onlyReceived)
{
    QList<QHostAddress> addresses;
    QList<HandshakeConnection *> strangers;
    for (const std::unique_ptr<HandshakeConnection> &handshake : handshakes) {
        const bool mayGo = !handshake->visitor().isOurs() && !handshake->isAccepted();
        if (mayGo && (handshake->isReceived() || !onlyReceived)) {
            addresses.append(handshake->visitor().address);
            strangers.append(handshake.get());
        }
    }
    if (strangers.size() > limit) {
        const HandshakeConnection *const evicted = strangers[chooseEvicted(addresses, QRandomGenerator::system())];
        logRefusal(evicted->visitor().address, u"Others came while it took its time"_s);
        removeHandshake(evicted);
    }
}

void FrontDoor::removeClient(const ViewerClient *client, const QString &reason)
{
    std::unique_ptr<ViewerClient> removed = takeFrom(&clients, client);
    if (!removed) {
        return;
    }
    const QString address = removed->address();
    removed.release()->deleteLater(); // we are in its signal
    logMessage(LogInfo, u"Lost a client from %1: %2"_s.arg(address, reason));
    emit clientsDisconnected({address});
}
