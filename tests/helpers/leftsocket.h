// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/** Leaves a stale local socket, as a killed program does. */
inline void leaveSocket(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || ::listen(socket, 1) != 0) {
        qFatal("Failed to make %s", name.constData());
    }
    ::close(socket);
}
