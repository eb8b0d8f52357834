// SPDX-License-Identifier: MIT
#include "client/reach/privatedirectory.h"

#include "support/peerowner.h"

#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

PrivateDirectory::~PrivateDirectory()
{
    if (directory != -1) {
        ::close(directory);
    }
}

bool PrivateDirectory::open(const QString &path, QString *error)
{
    const int opened = ::open(QFile::encodeName(path).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (opened == -1) {
        *error = u"Failed to open the directory \"%1\": %2"_s.arg(path, qt_error_string(errno));
        return false;
    }
    struct stat status = {};
    if (::fstat(opened, &status) != 0 || !isTrustedUser(status.st_uid) || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        ::close(opened);
        *error = u"Other users can change the directory \"%1\""_s.arg(path);
        return false;
    }
    if (directory != -1) {
        ::close(directory);
    }
    directory = opened;
    return true;
}

QString PrivateDirectory::pathOf(const QString &name) const
{
    return u"/proc/self/fd/%1/%2"_s.arg(QString::number(directory), name);
}
