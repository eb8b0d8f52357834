// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/attemptlimiter.h"
#include "agent/door/clientconnection.h"
#include "agent/door/handshakeconnection.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QTimer>

#include <memory>
#include <vector>

class PasswordStore;

/**
 * Listens for viewers on the session's port, asks each for a one-time password, and connects those that have one to the
 * X server. There is no other way to the X server. Owned by the agent, lives on the main thread.
 */
class FrontDoor final : public QObject
{
    Q_OBJECT

public:
    /**
     * Handshakes at one time. One more connection replaces the oldest handshake of the address that has most of them,
     * so that silent connections keep nobody out.
     */
    static constexpr size_t kMaxHandshakes = 16;
    /** Clients at one time; one more connection is closed at once. */
    static constexpr size_t kMaxClients = 64;

    /** @param passwords  outlives this object. @param backendPath  the X server's socket */
    FrontDoor(PasswordStore *passwords, QString backendPath, HandshakeLimits limits = {}, QObject *parent = nullptr);
    ~FrontDoor() override;

    /** Sets the X server's socket, if the constructor did not get it. Called before open(). */
    void setBackendPath(const QString &path) { backendPath = path; }

    /**
     * Binds the port on all addresses. Connections wait in the queue until open().
     *
     * @param port   0: any free port
     * @param error  set only on failure: one sentence that names the port
     */
    [[nodiscard]] bool listen(quint16 port, QString *error);

    /** Accepts connections from now on. */
    void open();
    /** Accepts no connections any more and breaks off the handshakes. Clients stay. */
    void close();
    /** Disconnects every client. clientsDisconnected() follows unless there were none. */
    void disconnectClients();

    [[nodiscard]] quint16 port() const { return listener.serverPort(); }
    [[nodiscard]] size_t clientCount() const { return clients.size(); }
    [[nodiscard]] size_t handshakeCount() const { return handshakes.size(); }

signals:
    void clientAuthenticated(const QString &address, const QByteArray &password);
    /** These clients left, all at the same time. */
    void clientsDisconnected(const QStringList &addresses);

private:
    void Listener_newConnection();
    void Listener_acceptError();
    void RefusalPause_timeout();
    void logRefusal(const QHostAddress &address, const QString &reason);
    void addHandshake(std::unique_ptr<QTcpSocket> socket);
    void addClient(HandshakeConnection *handshake, const QByteArray &password);
    void removeHandshake(const HandshakeConnection *handshake);
    void dropHandshake();
    void removeClient(const ClientConnection *client, const QString &reason);

    PasswordStore *passwords;
    QString backendPath;
    HandshakeLimits limits;
    AttemptLimiter limiter;
    QTcpServer listener;
    bool isOpen = false;
    QTimer refusalPause; ///< active while refusals are only counted
    int unloggedRefusals = 0;
    std::vector<std::unique_ptr<HandshakeConnection>> handshakes;
    std::vector<std::unique_ptr<ClientConnection>> clients;
};
