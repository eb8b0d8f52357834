// SPDX-License-Identifier: MIT
#pragma once

#include <QSslSocket>

/**
 * The server's end of a client connection. It knows whether the client is admitted: nothing may be sent or read until
 * the client's certificate has been compared. A plain TLS socket does not prevent that, because it accepts data to send
 * before the handshake has ended, and delivers data that arrives right after it. Lives on the main thread.
 */
class ClientSocket final : public QSslSocket
{
    Q_OBJECT

public:
    using QSslSocket::QSslSocket;

    /** Called once the client has shown the right certificate. */
    void admit() { admitted = true; }
    [[nodiscard]] bool isAdmitted() const { return admitted; }

private:
    bool admitted = false;
};
