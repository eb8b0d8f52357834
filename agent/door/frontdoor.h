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
 * Where clients come in. Listens on the session's port, asks for a one-time password, and leads who has one to the X
 * server, which nobody reaches in any other way. Owned by the agent, lives on the main thread.
 */
class FrontDoor final : public QObject
{
    Q_OBJECT

public:
    /**
     * Handshakes at one time. A further connection takes the place of the oldest one from the address that has the most
     * of them, so that nobody keeps others out by saying nothing.
     */
    static constexpr size_t kMaxHandshakes = 16;
    /** Clients at one time; a further connection is closed unseen. */
    static constexpr size_t kMaxClients = 64;

    /** @param passwords  outlives this object. @param backendPath  the X server's socket */
    FrontDoor(PasswordStore *passwords, QString backendPath, HandshakeLimits limits = {}, QObject *parent = nullptr);
    ~FrontDoor() override;

    /** Where the X server will be, if that was not known from the start. Called before open(). */
    void setBackendPath(const QString &path) { backendPath = path; }

    /**
     * Takes the port on all addresses, without letting anybody in yet: connections wait until open().
     *
     * @param port   0 for any that is free
     * @param error  set only on failure: one sentence that names the port
     */
    [[nodiscard]] bool listen(quint16 port, QString *error);

    /** Lets clients in from now on. */
    void open();
    /** Lets nobody in any more and breaks off the handshakes. Clients stay. */
    void close();
    /** Disconnects every client. clientsDisconnected() follows when there were any. */
    void disconnectClients();

    [[nodiscard]] quint16 port() const { return server.serverPort(); }
    [[nodiscard]] size_t clientCount() const { return clients.size(); }
    [[nodiscard]] size_t handshakeCount() const { return handshakes.size(); }

signals:
    void clientAuthenticated(const QString &address, const QByteArray &password);
    /** These clients left, all at once. */
    void clientsDisconnected(const QStringList &addresses);

private:
    void Server_newConnection();
    void Server_acceptError();
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
    QTcpServer server;
    bool isOpen = false;
    QTimer refusalPause; ///< running while refusals are counted and not logged one by one
    int unloggedRefusals = 0;
    std::vector<std::unique_ptr<HandshakeConnection>> handshakes;
    std::vector<std::unique_ptr<ClientConnection>> clients;
};
