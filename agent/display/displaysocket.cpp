// SPDX-License-Identifier: MIT
#include "agent/display/displaysocket.h"

#include "support/localendpoint.h"
#include "support/peerowner.h"

#include <QFile>

#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kBacklog = SOMAXCONN;

/** The time is part of it, because file systems use inodes again. */
bool isSameFile(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_ctim.tv_sec == other.st_ctim.tv_sec &&
           one.st_ctim.tv_nsec == other.st_ctim.tv_nsec;
}

void closeDescriptor(int *descriptor)
{
    if (*descriptor != -1) {
        ::close(std::exchange(*descriptor, -1));
    }
}

} // namespace

DisplaySocket::DisplaySocket(QString folder_)
    : folder(std::move(folder_))
{
}

DisplaySocket::~DisplaySocket()
{
    closeDescriptor(&listener);
    const QByteArray encoded = QFile::encodeName(path);
    struct stat now = {};
    // Another X server of this user may have taken the display over.
    if (file && ::lstat(encoded.constData(), &now) == 0 && isSameFile(*file, now)) {
        ::unlink(encoded.constData());
    }
    closeDescriptor(&abstractName);
}

bool DisplaySocket::listen(quint16 display, QString *error)
{
    path = u"%1/X%2"_s.arg(folder).arg(display);
    abstractName = bindAbstractSocket(QFile::encodeName(path), error);
    if (abstractName == -1) {
        return false;
    }
    QString problem;
    if (listenAtFile(&problem)) {
        return true;
    }
    reason = u"Every user of this machine can connect to display %1. %2"_s.arg(display).arg(problem);
    if (::listen(abstractName, kBacklog) != 0) {
        *error = u"Failed to listen on the abstract socket \"%1\": %2"_s.arg(path, qt_error_string(errno));
        return false;
    }
    listener = std::exchange(abstractName, -1);
    return true;
}

bool DisplaySocket::listenAtFile(QString *error)
{
    if (!prepareFolder(error)) {
        return false;
    }
    listener = listenPrivately(path, kBacklog, error);
    if (listener == -1) {
        return false;
    }
    struct stat made = {};
    if (::lstat(QFile::encodeName(path).constData(), &made) == 0) {
        file = made;
    }
    return true;
}

/** Makes the folder when it is missing, as X servers do. Fails if others can replace the files in it. */
bool DisplaySocket::prepareFolder(QString *error) const
{
    constexpr mode_t kForEverybody = 01777;
    const QByteArray encoded = QFile::encodeName(folder);
    if (::mkdir(encoded.constData(), kForEverybody) == 0) {
        ::chmod(encoded.constData(), kForEverybody); // regardless of our file-creation mask
    }
    struct stat status = {};
    if (::lstat(encoded.constData(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        *error = u"\"%1\" is not a folder"_s.arg(folder);
        return false;
    }
    if (!isTrustedUser(status.st_uid)) {
        *error = u"The folder \"%1\" belongs to the user with the id %2"_s.arg(folder).arg(status.st_uid);
        return false;
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0) {
        *error = u"Other users can replace the files in the folder \"%1\""_s.arg(folder);
        return false;
    }
    return true;
}

void DisplaySocket::handedOver()
{
    closeDescriptor(&listener);
}
