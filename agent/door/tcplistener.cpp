// SPDX-License-Identifier: MIT
#include "agent/door/tcplistener.h"

#include <fcntl.h>

void TcpListener::incomingConnection(qintptr descriptor)
{
    const int socket = static_cast<int>(descriptor);
    ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) | O_NONBLOCK);
    emit accepted(socket);
}
