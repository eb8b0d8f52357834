// SPDX-License-Identifier: MIT
#pragma once

#include <QSslSocket>

/**
 * The server's end of a client connection. A TLS socket takes data to send before its handshake has ended, and
 * delivers what arrives right behind it; until the client was let in, neither may happen. Lives on the main
 * thread.
 */
class ClientSocket final : public QSslSocket
{
    Q_OBJECT

public:
    using QSslSocket::QSslSocket;

    /** Lets the client in: its certificate has been compared. */
    void admit() { letIn = true; }
    [[nodiscard]] bool isAdmitted() const { return letIn; }

private:
    bool letIn = false;
};
