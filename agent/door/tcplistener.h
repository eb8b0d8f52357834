// SPDX-License-Identifier: MIT
#pragma once

#include <QTcpServer>
#include <QTimer>

/**
 * A TCP server that hands its connections on as descriptors, because another process reads them. It lets the event loop
 * go on after some connections, or a stranger who connects without a pause would stop it.
 */
class TcpListener final : public QTcpServer
{
    Q_OBJECT

public:
    explicit TcpListener(QObject *parent = nullptr);

signals:
    /** A client has connected. The receiver owns @p descriptor, which is close-on-exec and non-blocking. */
    void accepted(int descriptor);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void acceptMore();

    int acceptedAtOnce = 0;
    QTimer turn; ///< fires once the event loop has handled other events
};
