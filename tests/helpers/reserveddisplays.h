// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QString>

#include <cstddef>
#include <cstring>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/**
 * A range of display numbers that no other test uses at the same time, in this program or in another. Each number is
 * locked by an abstract socket, which the system closes with the process. The destructor removes the files that a test
 * left in /tmp under these numbers.
 */
class ReservedDisplays final
{
public:
    explicit ReservedDisplays(quint16 count_ = 1)
        : count(count_)
    {
        do {
            closeAll();
            base = static_cast<quint16>(QRandomGenerator::global()->bounded(kBegin, kEnd - count));
        } while (!reserveAll());
    }
    ~ReservedDisplays()
    {
        for (quint16 display = first(); display != end(); ++display) {
            QFile::remove(QStringLiteral("/tmp/Xrdp_%1.sock").arg(display));
            QFile::remove(lockPath(display));
            QFile::remove(socketPath(display));
        }
        closeAll();
    }
    Q_DISABLE_COPY_MOVE(ReservedDisplays)

    [[nodiscard]] quint16 first() const { return base; }
    [[nodiscard]] quint16 end() const { return static_cast<quint16>(base + count); }

    [[nodiscard]] static QString lockPath(quint16 display) { return QStringLiteral("/tmp/.X%1-lock").arg(display); }

private:
    /**
     * From kBegin on, both ports of a display lie outside the range of the system's outgoing ports. The tests of the
     * built programs use the numbers from kEnd on, and remove all files of those.
     */
    static constexpr int kBegin = 20000;
    static constexpr int kEnd = 21000;

    bool reserveAll()
    {
        for (quint16 display = first(); display != end(); ++display) {
            if (!reserve(display) || !isUnused(display)) {
                return false;
            }
        }
        return true;
    }

    /** Whether the number has no listeners and no stale files. */
    static bool isUnused(quint16 display)
    {
        return isPortUnused(static_cast<quint16>(6000 + display)) &&
               isPortUnused(static_cast<quint16>(41000 + display)) && !isThere(lockPath(display)) &&
               !isThere(QStringLiteral("/tmp/Xrdp_%1.sock").arg(display)) && !isThere(socketPath(display));
    }

    static QString socketPath(quint16 display)
    {
        return QDir::temp().filePath(QStringLiteral(".X11-unix/X%1").arg(display));
    }

    /** Whether anything is there, also a dangling symlink. */
    static bool isThere(const QString &path)
    {
        struct stat status = {};
        return ::lstat(QFile::encodeName(path).constData(), &status) == 0;
    }

    bool reserve(quint16 display)
    {
        const QByteArray name = "test-display-" + QByteArray::number(display);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX; // the path's first byte stays 0, which makes the name abstract
        std::memcpy(address.sun_path + 1, name.constData(), static_cast<size_t>(name.size()));
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());

        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockets.push_back(socket);
        return ::bind(socket, reinterpret_cast<const sockaddr *>(&address), length) == 0;
    }

    static bool isPortUnused(quint16 port)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool isUnused = ::bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        ::close(socket);
        return isUnused;
    }

    void closeAll()
    {
        for (const int socket : sockets) {
            ::close(socket);
        }
        sockets.clear();
    }

    const quint16 count;
    quint16 base = 0;
    std::vector<int> sockets;
};
