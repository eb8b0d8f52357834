// SPDX-License-Identifier: MIT
#include "agent/session/directorywatcher.h"

#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

bool isRemoved(int directory)
{
    struct stat status = {};
    if (::fstat(directory, &status) != 0) {
        return errno == ESTALE || errno == ENOENT; // a file server's answer for a removed directory
    }
    return status.st_nlink == 0;
}

} // namespace

DirectoryWatcher::DirectoryWatcher(std::chrono::milliseconds fallback, QObject *parent)
    : QObject(parent)
{
    connect(&parentWatcher, &QFileSystemWatcher::directoryChanged, this, &DirectoryWatcher::check);
    connect(&timer, &QTimer::timeout, this, &DirectoryWatcher::check);
    timer.setInterval(fallback);
}

DirectoryWatcher::~DirectoryWatcher()
{
    if (descriptor != -1) {
        ::close(descriptor);
    }
}

bool DirectoryWatcher::watch(const QString &path, QString *error)
{
    Q_ASSERT(descriptor == -1);
    descriptor = ::open(QFile::encodeName(path).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (descriptor == -1) {
        *error = u"Failed to open the directory \"%1\": %2"_s.arg(path, qt_error_string(errno));
        return false;
    }
    // Watched in the parent, because while a process works in a directory the kernel does not report its removal there.
    parentWatcher.addPath(path + "/.."_L1);
    timer.start();
    QMetaObject::invokeMethod(this, &DirectoryWatcher::check,
                              Qt::QueuedConnection); // the directory may be gone already
    return true;
}

void DirectoryWatcher::check()
{
    if (!timer.isActive() || !isRemoved(descriptor)) {
        return;
    }
    timer.stop();
    emit removed();
}
