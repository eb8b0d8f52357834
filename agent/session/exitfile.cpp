// SPDX-License-Identifier: MIT
#include "agent/session/exitfile.h"

#include "support/privatefile.h"

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

ExitFile::ExitFile()
{
    QFile::remove(SessionFile::kServerExit);
    descriptor = ::open(".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (descriptor != -1 && ::posix_fallocate(descriptor, 0, 1) != 0) {
        ::close(descriptor);
        descriptor = -1;
    }
}

ExitFile::~ExitFile()
{
    if (descriptor != -1) {
        ::close(descriptor);
    }
}

bool ExitFile::write(AgentExitCode code, QString *error)
{
    const QByteArray content = QByteArray::number(static_cast<int>(code));
    return writeReserved(content) || writePrivateFile(SessionFile::kServerExit, content, error);
}

bool ExitFile::writeReserved(const QByteArray &content) const
{
    if (descriptor == -1 || ::pwrite(descriptor, content.constData(), static_cast<size_t>(content.size()), 0) !=
                                static_cast<ssize_t>(content.size())) {
        return false;
    }
    QFile::remove(SessionFile::kServerExit); // an earlier run under the same id may have ended meanwhile
    const QByteArray unnamed = "/proc/self/fd/" + QByteArray::number(descriptor);
    return ::linkat(AT_FDCWD, unnamed.constData(), AT_FDCWD, SessionFile::kServerExit.data(), AT_SYMLINK_FOLLOW) == 0;
}
