// SPDX-License-Identifier: MIT
#pragma once

#include <QTcpServer>

/**
 * A port of the loopback interface for one viewer of this user. Every user of this host can connect to it, so the
 * kernel is asked whose each connection is before a byte is read or written. Strangers are closed at once. The port
 * stays open until the first connection of this user, or of root, has come. Used on the main thread.
 */
class GuardedPort final : public QTcpServer
{
    Q_OBJECT

public:
    using QTcpServer::QTcpServer;

    /** @param error  set only on failure: one sentence */
    [[nodiscard]] bool open(QString *error);

    /** The port for the viewer; set by open(). */
    [[nodiscard]] quint16 port() const { return openPort; }

signals:
    /** The viewer has connected; no other will. The receiver owns @p descriptor. */
    void accepted(int descriptor);

private:
    void incomingConnection(qintptr descriptor) override;

    quint16 openPort = 0;
};
