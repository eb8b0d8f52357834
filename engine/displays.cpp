// SPDX-License-Identifier: MIT
#include "engine/displays.h"

#include "engine/session.h"
#include "engine/sessionfiles.h"
#include "support/localendpoint.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QMutexLocker>
#include <QTcpSocket>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kConnectTimeoutMs = 1000;

quint16 displayPort(quint16 display)
{
    return static_cast<quint16>(6000 + display);
}

QString displaySocketPath(quint16 display)
{
    return QDir::temp().filePath(u".X11-unix/X%1"_s.arg(display));
}

QString displayLockPath(quint16 display)
{
    return u"/tmp/.X%1-lock"_s.arg(display);
}

/** Whether anything is there. A dangling symlink is: neither an agent nor an X server could put its file there. */
bool isTaken(const QString &path)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0;
}

/** Whether the system refuses to bind a socket of the family to the address because another one has it. */
template <typename Address>
bool isAddressBound(int family, const Address &address, size_t size)
{
    const int probe = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe == -1) {
        return false;
    }
    if (family != AF_UNIX) {
        const int on = 1;
        ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on); // as an agent's own listener does
    }
    if (family == AF_INET6) {
        const int off = 0; // whatever the system's default is, the agent listens for both families with one socket
        ::setsockopt(probe, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    }
    const bool isBound =
        ::bind(probe, reinterpret_cast<const sockaddr *>(&address), static_cast<socklen_t>(size)) != 0 &&
        errno == EADDRINUSE;
    ::close(probe);
    return isBound;
}

/**
 * Whether the system refuses to bind a listener to the port. It also does so if nothing listens there, but the port
 * belongs to an outgoing connection or to one in TIME_WAIT.
 */
bool isPortBound(quint16 port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return isAddressBound(AF_INET, address, sizeof address);
}

/**
 * The same for a listener of both families, which also meets listeners of IPv6 alone. False on a machine without IPv6,
 * where the agent listens for IPv4 alone.
 */
bool isDualPortBound(quint16 port)
{
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    return isAddressBound(AF_INET6, address, sizeof address);
}

/**
 * Whether a socket has the abstract name that an X server binds beside its socket file. Binds rather than connects,
 * because a stranger's socket need not listen to be in the way.
 */
bool isAbstractSocketBound(quint16 display)
{
    const QByteArray name = "/tmp/.X11-unix/X" + QByteArray::number(display); // X ignores TMPDIR
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.constData(), static_cast<size_t>(name.size()));
    return isAddressBound(AF_UNIX, address, offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(name.size()));
}

bool isDisplayOpen(quint16 display)
{
    return isPortFree(displayPort(display)) && !isTaken(displaySocketPath(display)) && isPortFree(agentPort(display)) &&
           !isTaken(displayLockPath(display)) && !isTaken(agentSocketPath(display)) &&
           !isPortBound(agentPort(display)) && !isDualPortBound(agentPort(display)) && !isAbstractSocketBound(display);
}

/** Whether the path is of this type and belongs to this user. A symlink is not followed. */
bool isOwn(const QByteArray &path, mode_t type)
{
    struct stat status = {};
    return ::lstat(path.constData(), &status) == 0 && (status.st_mode & S_IFMT) == type && status.st_uid == ::geteuid();
}

void removeStaleSocket(const QString &path)
{
    if (!isOwn(QFile::encodeName(path), S_IFSOCK)) {
        return;
    }
    const int probe = connectLocalSocket(path);
    if (probe != -1) {
        ::close(probe);
    } else if (errno == ECONNREFUSED) {
        QFile::remove(path);
    }
}

/** Whether the X server whose pid is in the lock file still runs. True when that is unknown. */
bool isLockHeld(const QString &path)
{
    qint32 pid = 0;
    QString error;
    return !readNumberFile(path, &pid, &error) || pid <= 0 || ::kill(pid, 0) == 0 || errno != ESRCH;
}

} // namespace

bool isPortFree(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    return !socket.waitForConnected(kConnectTimeoutMs) && socket.error() == QAbstractSocket::ConnectionRefusedError;
}

bool DisplayReservations::insert(quint16 display)
{
    const QMutexLocker locker(&mutex);
    if (displays.contains(display)) {
        return false;
    }
    displays.insert(display, 1);
    return true;
}

void DisplayReservations::hold(quint16 display)
{
    const QMutexLocker locker(&mutex);
    ++displays[display];
}

void DisplayReservations::remove(quint16 display)
{
    const QMutexLocker locker(&mutex);
    const auto found = displays.find(display);
    if (found != displays.end() && --*found == 0) {
        displays.erase(found);
    }
}

DisplayReservation::DisplayReservation(DisplayReservations *all_)
    : all(all_)
{
}

DisplayReservation::~DisplayReservation()
{
    release();
}

bool DisplayReservation::take(quint16 display)
{
    release();
    if (!all->insert(display)) {
        return false;
    }
    held = display;
    return true;
}

void DisplayReservation::release()
{
    if (held) {
        all->remove(*held);
        held.reset();
    }
}

void DisplayReservation::keep()
{
    held.reset();
}

std::optional<quint16> findOpenDisplay(quint16 base, quint16 limit, DisplayReservation *reservation)
{
    for (quint16 display = base; display != limit; ++display) {
        if (reservation && !reservation->take(display)) {
            continue;
        }
        if (isDisplayOpen(display)) {
            return display;
        }
    }
    if (reservation) {
        reservation->release();
    }
    return std::nullopt;
}

void removeStaleDisplayFiles(quint16 display)
{
    removeStaleSocket(agentSocketPath(display));
    const QString lock = displayLockPath(display);
    if (!isOwn(QFile::encodeName(lock), S_IFREG) || isLockHeld(lock)) {
        return;
    }
    // The lock last: until then no other X server creates the socket.
    removeStaleSocket(displaySocketPath(display));
    QFile::remove(lock);
}
