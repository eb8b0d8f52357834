// SPDX-License-Identifier: MIT
#include "client/reach/tunnel.h"

#include <QHostAddress>

#include <csignal>

#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kEndTimeoutMs = 2000;

/** Runs in the child, between fork and exec. */
void prepareChild(int connection)
{
    ::dup2(connection, STDIN_FILENO);
    ::dup2(connection, STDOUT_FILENO);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
}

} // namespace

Tunnel::Tunnel(const QStringList &command_, QObject *parent)
    : QTcpServer(parent)
    , command(command_)
{
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
}

Tunnel::~Tunnel()
{
    if (process.state() != QProcess::NotRunning) {
        process.terminate();
        if (!process.waitForFinished(kEndTimeoutMs)) {
            process.kill();
            process.waitForFinished(kEndTimeoutMs);
        }
    }
}

bool Tunnel::open(QString *error)
{
    if (!listen(QHostAddress(QHostAddress::LocalHost))) {
        *error = u"Failed to listen for the viewer: %1"_s.arg(errorString());
        return false;
    }
    openPort = serverPort();
    return true;
}

void Tunnel::incomingConnection(qintptr descriptor)
{
    close(); // one viewer only
    const int connection = static_cast<int>(descriptor);
    process.setChildProcessModifier([connection] { prepareChild(connection); });
    process.start(command.first(), command.sliced(1));
    ::close(connection); // only the command holds it now, so the viewer sees its end
}
