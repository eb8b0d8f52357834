// SPDX-License-Identifier: MIT
#include "agent/display/xserverfiles.h"

#include <QByteArray>
#include <QFile>

#include <array>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** Everybody can write to the directory, so the lock's name may belong to a link, a pipe or a directory. */
pid_t lockOwner(const QByteArray &path)
{
    const int file = ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (file == -1) {
        return 0;
    }
    struct stat status = {};
    std::array<char, 32> text = {};
    ssize_t length = 0;
    if (::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid()) {
        length = ::read(file, text.data(), text.size());
    }
    ::close(file);
    return length > 0 ? QByteArray(text.data(), length).trimmed().toInt() : 0;
}

} // namespace

void removeXServerFiles(quint16 display, pid_t xServer, const QString &directory)
{
    const QByteArray lock = QFile::encodeName(u"%1/.X%2-lock"_s.arg(directory).arg(display));
    if (xServer <= 0 || lockOwner(lock) != xServer) {
        return;
    }
    // The lock last, because it keeps other X servers away from the socket.
    ::unlink(QFile::encodeName(u"%1/.X11-unix/X%2"_s.arg(directory).arg(display)).constData());
    ::unlink(lock.constData());
}
