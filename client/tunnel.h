// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>

/**
 * Lets one viewer on this host reach a port of another one: takes its connection on a port of the loopback
 * interface and copies bytes to and from the standard streams of a command. Used on the main thread.
 */
class Tunnel : public QObject
{
    Q_OBJECT

public:
    explicit Tunnel(const QStringList &command, QObject *parent = nullptr);
    ~Tunnel() override;

    /** @param error  set only on failure: one sentence */
    [[nodiscard]] bool listen(QString *error);

    [[nodiscard]] quint16 port() const { return server.serverPort(); }

private:
    void Server_newConnection();
    void copyToProcess();
    void copyToClient();
    void close();

    const QStringList command;
    QTcpServer server;
    QTcpSocket *client = nullptr; ///< a child of the server
    QProcess process;
};
