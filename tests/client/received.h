// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <array>
#include <cerrno>

#include <sys/socket.h>

/** Collects what arrives at a socket, which it borrows. Never waits, so it can be asked again and again. */
class Received final
{
public:
    explicit Received(int descriptor_)
        : descriptor(descriptor_)
    {
    }

    /** Everything that has come so far. */
    [[nodiscard]] QByteArray bytes()
    {
        std::array<char, 4096> block{};
        ssize_t count = 0;
        while ((count = ::recv(descriptor, block.data(), block.size(), MSG_DONTWAIT)) > 0) {
            collected.append(block.data(), count);
        }
        over = over || count == 0 || (errno != EAGAIN && errno != EINTR);
        return collected;
    }

    /** Whether the other end has closed the connection, or its direction of it. */
    [[nodiscard]] bool hasEnded()
    {
        [[maybe_unused]] const QByteArray all = bytes();
        return over;
    }

private:
    const int descriptor;
    QByteArray collected;
    bool over = false;
};
