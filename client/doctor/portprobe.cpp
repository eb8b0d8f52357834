// SPDX-License-Identifier: MIT
#include "client/doctor/portprobe.h"

#include <cerrno>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

bool canListenOn(quint16 port, QString *error)
{
    const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // Two sockets with SO_REUSEADDR can bind the same port as long as neither listens.
    const int on = 1;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const bool isFree = probe != -1 && ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                        ::bind(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    if (!isFree) {
        *error = qt_error_string(errno);
    }
    if (probe != -1) {
        ::close(probe);
    }
    return isFree;
}
