// SPDX-License-Identifier: MIT
#include "client/reach/guardedport.h"

#include "support/peerowner.h"

#include <QHostAddress>

#include <unistd.h>

using namespace Qt::StringLiterals;

bool GuardedPort::open(QString *error)
{
    if (!listen(QHostAddress(QHostAddress::LocalHost))) {
        *error = u"Failed to listen for the viewer: %1"_s.arg(errorString());
        return false;
    }
    openPort = serverPort();
    return true;
}

void GuardedPort::incomingConnection(qintptr descriptor)
{
    const int connection = static_cast<int>(descriptor);
    // Several connections may have been accepted before the port was closed.
    if (!isListening() || findTcpPeer(connection) != TcpPeer::Ours) {
        ::close(connection);
        return;
    }
    close();
    emit accepted(connection);
}
