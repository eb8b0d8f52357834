// SPDX-License-Identifier: MIT
#pragma once

#include "agent/display/backendhandshake.h"

#include <QHostAddress>
#include <QLocalSocket>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

#include <memory>

/**
 * An authenticated client and its own connection to the X server: does the handshake there, then copies bytes both ways
 * until one side closes. It buffers at most a few hundred KiB in each direction. When one side does not take its bytes,
 * the other side is not read (back-pressure). Owned by the front door, lives on the main thread.
 */
class ClientConnection final : public QObject
{
    Q_OBJECT

public:
    /**
     * @param client  connected and authenticated
     * @param unread  what the client has sent after its handshake
     */
    ClientConnection(std::unique_ptr<QTcpSocket> client, QByteArray unread, QObject *parent = nullptr);
    ~ClientConnection() override;

    /** Connects to the X server's socket at @p backendPath. ended() follows. */
    void start(const QString &backendPath);

    [[nodiscard]] QHostAddress address() const { return peer; }

signals:
    /** The client is disconnected. Emitted once, never during start(). @p reason is a few words to log. */
    void ended(const QString &reason);

private:
    void configureClientSocket();
    void Backend_readyRead();
    void beginRelay();
    void copyToBackend();
    void copyToClient();
    void end(const QString &reason);

    std::unique_ptr<QTcpSocket> client;
    QLocalSocket backend;
    QHostAddress peer;
    QByteArray fromClient;  ///< read before the relay began
    QByteArray fromBackend; ///< the X server's side of the handshake, not parsed yet
    BackendHandshake handshake;
    QTimer deadline;
    bool isRelaying = false;
    bool isEnded = false;
};
