// SPDX-License-Identifier: MIT
#pragma once

#include <QProcess>
#include <QStringList>
#include <QTcpServer>

/**
 * Lets one viewer on this host reach a port of another one: takes its connection on a port of the loopback
 * interface and makes it the standard input and output of a command, which ends with this object at the latest. No
 * byte passes through this program, so whoever is faster waits for the other. Used on the main thread.
 */
class Tunnel final : private QTcpServer
{
    Q_OBJECT

public:
    explicit Tunnel(const QStringList &command, QObject *parent = nullptr);
    ~Tunnel() override;

    /** @param error  set only on failure: one sentence */
    [[nodiscard]] bool open(QString *error);

    /** Where the viewer has to go; set by open(). */
    [[nodiscard]] quint16 port() const { return openPort; }

private:
    void incomingConnection(qintptr descriptor) override;

    const QStringList command;
    quint16 openPort = 0;
    QProcess process;
};
