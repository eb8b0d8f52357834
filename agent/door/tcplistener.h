// SPDX-License-Identifier: MIT
#pragma once

#include <QTcpServer>

/** A TCP server that hands its connections on as descriptors, because another process reads them. */
class TcpListener final : public QTcpServer
{
    Q_OBJECT

public:
    using QTcpServer::QTcpServer;

signals:
    /** A client has connected. The receiver owns @p descriptor, which is close-on-exec and non-blocking. */
    void accepted(int descriptor);

protected:
    void incomingConnection(qintptr descriptor) override;
};
