// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/backendconnection.h"
#include "agent/door/viewerclient.h"

#include <memory>

class QSocketNotifier;
class Reception;

/** The sockets of a visitor that a confined process serves. A value; its owner closes them. */
struct Visit
{
    quint32 id = 0;
    int client = -1;  ///< the visitor's socket, which the process has too
    int control = -1; ///< to the process
};

/**
 * A viewer over TLS. Its confined process copies the bytes and does the encryption. We open its connection to the X
 * server, because that process cannot, and end it.
 */
class ConfinedClient final : public ViewerClient
{
    Q_OBJECT

public:
    /** @param visit  its sockets are ours from now on. @param reception  outlives this object */
    ConfinedClient(const Visit &visit, const QString &address, Reception *reception, QObject *parent = nullptr);
    ~ConfinedClient() override;

    void start(const QString &backendPath) override;

private:
    void Opening_opened();
    void end(const QString &reason);
    void closeAll();

    Visit visit;
    Reception *reception;
    int backend = -1; ///< the process has it too, so we can break the connection
    BackendConnection opening;
    std::unique_ptr<QSocketNotifier> notifier; ///< of the control socket: it closes when the process ends
};
