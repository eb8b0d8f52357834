// SPDX-License-Identifier: MIT
#include "fuzz/rawsocket.h"

#include "fuzz/target.h"

#include <QFile>

#include <algorithm>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

std::pair<RawSocket, int> RawSocket::pair()
{
    int ends[2] = {-1, -1};
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    return {RawSocket(ends[0]), ends[1]};
}

RawSocket RawSocket::listenAt(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    FUZZ_CHECK(static_cast<size_t>(name.size()) < sizeof address.sun_path);
    std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
    FUZZ_CHECK(::listen(listener, 8) == 0);
    return RawSocket(listener);
}

RawSocket RawSocket::accept() const
{
    return RawSocket(::accept4(descriptor, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

QByteArray RawSocket::readAll() const
{
    QByteArray all;
    char piece[4096];
    ssize_t count = 0;
    while (isOpen() && (count = ::read(descriptor, piece, sizeof piece)) > 0) {
        all.append(piece, static_cast<qsizetype>(count));
    }
    return all;
}

qsizetype RawSocket::write(const QByteArray &bytes) const
{
    const ssize_t count = ::send(descriptor, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
    return std::max<qsizetype>(0, static_cast<qsizetype>(count));
}

void RawSocket::shutDownWriting() const
{
    ::shutdown(descriptor, SHUT_WR);
}

void RawSocket::close()
{
    if (isOpen()) {
        ::close(std::exchange(descriptor, -1));
    }
}
