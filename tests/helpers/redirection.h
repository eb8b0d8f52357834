// SPDX-License-Identifier: MIT
#pragma once

#include <QFile>
#include <QString>

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

/** Redirects a standard stream into a file until it is destroyed. Used on the main thread. */
class Redirection final
{
public:
    /** @param descriptor_  STDOUT_FILENO or STDERR_FILENO */
    Redirection(int descriptor_, const QString &path)
        : descriptor(descriptor_)
        , previous(::fcntl(descriptor_, F_DUPFD_CLOEXEC, 3))
    {
        std::fflush(nullptr);
        const int file = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (previous == -1 || file == -1 || ::dup2(file, descriptor) == -1) {
            qFatal("Failed to redirect a stream to %s", qPrintable(path));
        }
        ::close(file);
    }
    ~Redirection()
    {
        std::fflush(nullptr);
        ::dup2(previous, descriptor);
        ::close(previous);
    }
    Q_DISABLE_COPY_MOVE(Redirection)

private:
    const int descriptor;
    const int previous;
};
