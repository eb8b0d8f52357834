// SPDX-License-Identifier: MIT
#include "fuzz/stateserver.h"

#include "fuzz/target.h"

#include <QFile>

#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

int listenAt(const QByteArray &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    FUZZ_CHECK(static_cast<size_t>(path.size()) < sizeof address.sun_path);
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
    FUZZ_CHECK(::listen(listener, 8) == 0);
    return listener;
}

} // namespace

StateServer::StateServer()
    : listener(listenAt(QFile::encodeName(path())))
    , thread([this] { serve(); })
{
}

void StateServer::tell(const QByteArray &bytes)
{
    const std::lock_guard<std::mutex> locker(mutex);
    state = bytes;
}

void StateServer::serve()
{
    for (;;) {
        const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0) {
            answer(connection);
            ::close(connection);
        }
    }
}

void StateServer::answer(int connection)
{
    QByteArray rest;
    {
        const std::lock_guard<std::mutex> locker(mutex);
        rest = state;
    }
    Dice dice(rest);
    while (!rest.isEmpty()) {
        const QByteArray piece = takePiece(&rest, &dice);
        if (::send(connection, piece.constData(), static_cast<size_t>(piece.size()), MSG_NOSIGNAL) != piece.size()) {
            return; // the caller has closed
        }
    }
}
