// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/backendconnection.h"
#include "agent/door/viewerclient.h"

#include <QLocalSocket>
#include <QTcpSocket>

#include <memory>

/**
 * A viewer whose bytes we copy ourselves, because they need no TLS: it is on this host, or the user has allowed it.
 * Copies bytes both ways between the viewer and the X server until one side closes. It buffers at most a few hundred
 * KiB in each direction. When one side does not take its bytes, the other side is not read (back-pressure).
 */
class ClientConnection final : public ViewerClient
{
    Q_OBJECT

public:
    /**
     * @param client   a connected stream socket, which this object owns from now on: a TCP or a local socket
     * @param address  the viewer's, as the log names it
     */
    ClientConnection(int client, const QString &address, QObject *parent = nullptr);
    ~ClientConnection() override;

    void start(const QString &backendPath) override;

private:
    void Opening_opened();
    void copyToBackend();
    void copyToClient();
    void end(const QString &reason);

    QTcpSocket client;
    BackendConnection opening;
    std::unique_ptr<QLocalSocket> backend; ///< set once the relay has begun
    bool isEnded = false;
};
