// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/attemptlimiter.h"
#include "agent/door/handshakeconnection.h"
#include "agent/door/localhandshake.h"
#include "agent/door/tcplistener.h"
#include "agent/door/viewerclient.h"
#include "support/localendpoint.h"

#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

/** Who may do what at the TCP port. A value; the defaults are the product's. */
struct DoorRules
{
    bool allowPlainFromNetwork = false; ///< other hosts may do without TLS
    bool allowLocalUsers = false;       ///< other users of this host may come at all
    HandshakeLimits limits;
    /** Tells who is at the other end of a TCP socket. */
    std::function<TcpPeer(int)> findPeer = &findTcpPeer;
};

/**
 * Lets viewers in to the X server: on the session's TCP port with a one-time password, and at a local socket, which
 * only the user can reach, without. There is no other way to the X server. Owned by the agent, lives on the main
 * thread.
 */
class FrontDoor final : public QObject
{
    Q_OBJECT

public:
    /** Strangers' handshakes at one time. One more makes one of them go, see chooseEvicted(). */
    static constexpr qsizetype kMaxStrangers = 256;
    /** How many of them may be served by a process at one time. */
    static constexpr qsizetype kMaxReceived = 32;
    /**
     * Strangers for whom a process is started at once. Then more are started at kReceivedPerTurn each kReceptionTurn,
     * because a flood that speaks would keep both processors busy with it.
     */
    static constexpr int kReceivedAtOnce = 32;
    static constexpr int kReceivedPerTurn = 2;
    static constexpr std::chrono::milliseconds kReceptionTurn{20};
    /** The user's own handshakes at one time. None is evicted; one more connection is closed at once. */
    static constexpr qsizetype kMaxOwn = 256;
    /** Clients at one time; one more connection is closed at once. */
    static constexpr size_t kMaxClients = 64;

    /** @param helpers  outlive this object; the limiter is the door's own. @param backendPath  the X server's socket */
    FrontDoor(const HandshakeHelpers &helpers, QString backendPath, DoorRules rules = {}, QObject *parent = nullptr);
    ~FrontDoor() override;

    /** Sets the X server's socket, if the constructor did not get it. Called before open(). */
    void setBackendPath(const QString &path) { backendPath = path; }
    /** Sets the rules, if the constructor did not get them. Called before listen(). */
    void setRules(DoorRules newRules) { rules = std::move(newRules); }

    /**
     * Binds the TCP port. Connections wait in the queue until open().
     *
     * @param port   0: any free port
     * @param error  set only on failure: one sentence that names the port
     */
    [[nodiscard]] bool listen(const QHostAddress &address, quint16 port, QString *error);
    /** Accepts the user's viewers at the local socket @p path from now on. @param error  as with listen() */
    [[nodiscard]] bool listenLocally(const QString &path, QString *error);

    /** Accepts TCP connections from now on, if listen() was called. */
    void open();
    /** Accepts no connections any more and breaks off the handshakes. Clients stay. */
    void close();
    /** Disconnects every client. clientsDisconnected() follows unless there were none. */
    void disconnectClients();

    [[nodiscard]] quint16 port() const { return listener.serverPort(); }
    [[nodiscard]] size_t clientCount() const { return clients.size(); }
    [[nodiscard]] size_t handshakeCount() const { return handshakes.size() + localHandshakes.size(); }

signals:
    /** @p password is empty for a viewer at the local socket. */
    void clientAuthenticated(const QString &address, const QByteArray &password);
    /** These clients left, all at the same time. */
    void clientsDisconnected(const QStringList &addresses);

private:
    using Handshakes = std::vector<std::unique_ptr<HandshakeConnection>>;

    void Listener_accepted(int descriptor);
    void Listener_acceptError();
    void LocalEndpoint_accepted(int descriptor);
    void RefusalPause_timeout();
    void logRefusal(const QHostAddress &address, const QString &reason);
    [[nodiscard]] bool admits(const Visitor &visitor);
    void addHandshake(int descriptor, const Visitor &visitor);
    void addAuthenticated(HandshakeConnection *handshake, const QByteArray &password);
    void addClient(std::unique_ptr<ViewerClient> client, const QByteArray &password);
    void receiveStrangers();
    void ReceptionTurn_timeout();
    void removeHandshake(const HandshakeConnection *handshake);
    void keepStrangersWithin(qsizetype limit, bool onlyReceived);
    void removeClient(const ViewerClient *client, const QString &reason);

    AttemptLimiter limiter;
    HandshakeHelpers helpers;
    QString backendPath;
    DoorRules rules;
    TcpListener listener;
    std::unique_ptr<LocalEndpoint> localEndpoint;
    bool isOpen = false;
    QTimer receptionTurn; ///< active until all kReceivedAtOnce are possible again
    int receptionsLeft = kReceivedAtOnce;
    QTimer refusalPause; ///< active while refusals are only counted
    int unloggedRefusals = 0;
    Handshakes handshakes;
    std::vector<std::unique_ptr<LocalHandshake>> localHandshakes;
    std::vector<std::unique_ptr<ViewerClient>> clients;
};
