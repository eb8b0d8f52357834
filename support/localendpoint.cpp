// SPDX-License-Identifier: MIT
#include "support/localendpoint.h"

#include "support/peerowner.h"

#include <QFile>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kBacklog = 64;
/** How long no connection is accepted after the system had no descriptor for one. */
constexpr std::chrono::seconds kPauseWithoutDescriptors(1);

int newSocket()
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

bool fillAddress(const QByteArray &path, sockaddr_un *address)
{
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.isEmpty() || static_cast<size_t>(path.size()) >= sizeof address->sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address->sun_path, path.constData(), static_cast<size_t>(path.size()));
    return true;
}

/** The size of the address of an abstract socket, whose name ends with the address. */
socklen_t abstractSize(const QByteArray &name)
{
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path)) + 1 + static_cast<socklen_t>(name.size());
}

int closeKeepingErrno(int descriptor)
{
    const int saved = errno;
    ::close(descriptor);
    errno = saved;
    return -1;
}

/** Connects, and checks whose process listens before a byte is sent to it. */
int connectTo(const sockaddr_un &address, socklen_t size)
{
    const int descriptor = newSocket();
    if (descriptor == -1) {
        return -1;
    }
    if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&address), size) != 0) {
        return closeKeepingErrno(descriptor);
    }
    if (!isLocalPeerTrusted(descriptor)) {
        errno = EPERM;
        return closeKeepingErrno(descriptor);
    }
    return descriptor;
}

/** Sets the permissions through the mask, because others could connect between bind() and a later chmod(). */
int bindPrivately(int descriptor, const sockaddr_un &address)
{
    const mode_t mask = ::umask(0177);
    const int result = ::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    ::umask(mask);
    return result;
}

} // namespace

int connectLocalSocket(const QString &path)
{
    sockaddr_un address;
    if (!fillAddress(QFile::encodeName(path), &address)) {
        return -1;
    }
    return connectTo(address, sizeof address);
}

int connectAbstractSocket(const QByteArray &name)
{
    sockaddr_un address;
    if (!fillAddress(QByteArray(1, '\0') + name, &address)) {
        return -1;
    }
    return connectTo(address, abstractSize(name));
}

bool removeDeadSocket(const QString &path, QString *error)
{
    struct stat found = {};
    const QByteArray encoded = QFile::encodeName(path);
    if (::lstat(encoded.constData(), &found) != 0) {
        return true; // if anything else is wrong with the path, bind() will report it
    }
    if (!S_ISSOCK(found.st_mode)) {
        *error = u"The path \"%1\" is taken by something that is no socket"_s.arg(path);
        return false;
    }
    const int probe = connectLocalSocket(path);
    if (probe != -1 || errno == EAGAIN || errno == EPERM) {
        *error = u"The socket \"%1\" is in use by another process"_s.arg(path);
        if (probe != -1) {
            ::close(probe);
        }
        return false;
    }
    if (::unlink(encoded.constData()) != 0) {
        *error = u"Failed to remove the socket \"%1\": %2"_s.arg(path, qt_error_string(errno));
        return false;
    }
    return true;
}

int listenPrivately(const QString &path, int backlog, QString *error)
{
    if (!removeDeadSocket(path, error)) {
        return -1;
    }
    const QByteArray encoded = QFile::encodeName(path);
    sockaddr_un address;
    int descriptor = fillAddress(encoded, &address) ? newSocket() : -1;
    if (descriptor != -1 && bindPrivately(descriptor, address) != 0) {
        descriptor = closeKeepingErrno(descriptor);
    }
    if (descriptor != -1 && ::listen(descriptor, backlog) != 0) {
        const int saved = errno;
        ::unlink(encoded.constData());
        errno = saved;
        descriptor = closeKeepingErrno(descriptor);
    }
    if (descriptor == -1) {
        *error = u"Failed to listen on the socket \"%1\": %2"_s.arg(path, qt_error_string(errno));
    }
    return descriptor;
}

int bindAbstractSocket(const QByteArray &name, QString *error)
{
    sockaddr_un address;
    int descriptor = fillAddress(QByteArray(1, '\0') + name, &address) ? newSocket() : -1;
    if (descriptor != -1 && ::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), abstractSize(name)) != 0) {
        descriptor = closeKeepingErrno(descriptor);
    }
    if (descriptor == -1) {
        *error = u"Failed to take the name of the abstract socket \"%1\": %2"_s.arg(QFile::decodeName(name),
                                                                                    qt_error_string(errno));
    }
    return descriptor;
}

LocalEndpoint::LocalEndpoint(QObject *parent)
    : QObject(parent)
{
}

LocalEndpoint::~LocalEndpoint()
{
    notifier.reset();
    if (listener != -1) {
        ::unlink(boundPath.constData());
        ::close(listener);
    }
}

bool LocalEndpoint::listen(const QString &path, QString *error)
{
    Q_ASSERT(listener == -1);
    listener = listenPrivately(path, kBacklog, error);
    if (listener == -1) {
        return false;
    }
    boundPath = QFile::encodeName(path);
    notifier = std::make_unique<QSocketNotifier>(listener, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &LocalEndpoint::acceptPending);
    return true;
}

void LocalEndpoint::acceptPending()
{
    // One per activation, so that other events get their turn. The notifier fires again while more are waiting.
    const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor != -1 && !isLocalPeerTrusted(descriptor)) {
        ::close(descriptor);
        return;
    }
    if (descriptor != -1) {
        emit accepted(descriptor);
        return;
    }
    if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        // The connection stays in the queue, so the notifier would fire again at once, without end.
        notifier->setEnabled(false);
        QTimer::singleShot(kPauseWithoutDescriptors, this, [this] { notifier->setEnabled(true); });
    }
}
