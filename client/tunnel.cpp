// SPDX-License-Identifier: MIT
#include "client/tunnel.h"

#include <QHostAddress>

#include <csignal>

#include <sys/prctl.h>

using namespace Qt::StringLiterals;

namespace {

/** What may wait on one side for the other; a sender that is faster has to wait. */
constexpr qint64 kMaxPendingBytes = 1024 * 1024;

constexpr int kEndMs = 2000;

} // namespace

Tunnel::Tunnel(const QStringList &command_, QObject *parent)
    : QObject(parent)
    , command(command_)
{
    connect(&server, &QTcpServer::newConnection, this, &Tunnel::Server_newConnection);
    connect(&process, &QProcess::readyReadStandardOutput, this, &Tunnel::copyToClient);
    connect(&process, &QProcess::bytesWritten, this, &Tunnel::copyToProcess);
    connect(&process, &QProcess::finished, this, &Tunnel::close);
    connect(&process, &QProcess::errorOccurred, this, &Tunnel::close);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
}

Tunnel::~Tunnel()
{
    if (process.state() != QProcess::NotRunning) {
        process.disconnect(this);
        process.terminate();
        if (!process.waitForFinished(kEndMs)) {
            process.kill();
            process.waitForFinished(kEndMs);
        }
    }
}

bool Tunnel::listen(QString *error)
{
    if (!server.listen(QHostAddress(QHostAddress::LocalHost))) {
        *error = u"Failed to listen for the viewer: %1"_s.arg(server.errorString());
        return false;
    }
    return true;
}

void Tunnel::Server_newConnection()
{
    client = server.nextPendingConnection();
    server.close(); // one viewer, and nobody behind it
    client->setReadBufferSize(kMaxPendingBytes);
    connect(client, &QTcpSocket::readyRead, this, &Tunnel::copyToProcess);
    connect(client, &QTcpSocket::bytesWritten, this, &Tunnel::copyToClient);
    connect(client, &QTcpSocket::disconnected, &process, &QProcess::closeWriteChannel);
    process.start(command.first(), command.sliced(1));
}

void Tunnel::copyToProcess()
{
    if (client && process.bytesToWrite() < kMaxPendingBytes) {
        process.write(client->readAll());
    }
}

void Tunnel::copyToClient()
{
    if (client && client->bytesToWrite() < kMaxPendingBytes) {
        client->write(process.readAllStandardOutput());
    }
}

void Tunnel::close()
{
    copyToClient();
    if (client) {
        client->disconnectFromHost();
    }
}
