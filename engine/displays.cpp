// SPDX-License-Identifier: MIT
#include "engine/displays.h"

#include "engine/session.h"
#include "engine/sessionfiles.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QLocalSocket>
#include <QMutexLocker>
#include <QTcpSocket>

#include <cerrno>
#include <csignal>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

/**
 * Whether the system refuses to bind a listener to the port. It also does so if nothing listens there, but the port
 * belongs to an outgoing connection or to one in TIME_WAIT.
 */
bool isPortBound(quint16 port)
{
    const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe == -1) {
        return false;
    }
    const int on = 1;
    ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on); // as an agent's own listener does
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const bool isBound =
        ::bind(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 && errno == EADDRINUSE;
    ::close(probe);
    return isBound;
}

bool isDisplayOpen(quint16 display)
{
    return isPortFree(displayPort(display)) && !QFile::exists(displaySocketPath(display)) &&
           isPortFree(agentPort(display)) && !QFile::exists(displayLockPath(display)) &&
           !QFile::exists(agentSocketPath(display)) && !isPortBound(agentPort(display));
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
    QLocalSocket socket;
    socket.connectToServer(path);
    if (socket.error() == QLocalSocket::ConnectionRefusedError) {
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
