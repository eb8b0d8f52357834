// SPDX-License-Identifier: MIT
#pragma once

#include <QProcess>
#include <QStringList>
#include <QTcpServer>

/**
 * Lets one viewer on this host reach a port of another host. Accepts one connection on a port of the loopback interface
 * and runs a command with that connection as its standard input and output. The destructor ends the command. No byte
 * passes through this program, so the kernel provides the back-pressure. Used on the main thread.
 */
class Tunnel final : private QTcpServer
{
    Q_OBJECT

public:
    explicit Tunnel(const QStringList &command, QObject *parent = nullptr);
    ~Tunnel() override;

    /** @param error  set only on failure: one sentence */
    [[nodiscard]] bool open(QString *error);

    /** The port for the viewer; set by open(). */
    [[nodiscard]] quint16 port() const { return openPort; }

private:
    void incomingConnection(qintptr descriptor) override;

    const QStringList command;
    quint16 openPort = 0;
    QProcess process;
};
