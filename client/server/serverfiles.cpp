// SPDX-License-Identifier: MIT
#include "client/server/serverfiles.h"

#include "client/server/serverprocess.h"
#include "contract/sessionid.h"
#include "support/filereader.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <optional>
#include <utility>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxNumberBytes = 32;

/** Servers that follow each other so fast have a reason to be given up. */
constexpr int kMaxGlances = 10;

enum class NumberFile { Missing, Empty, Unreadable, Invalid, Valid };

NumberFile readNumber(const QString &path, qint64 limit, qint64 *number, QString *error)
{
    if (!QFile::exists(path)) {
        return NumberFile::Missing;
    }
    if (isSpecialFile(path)) {
        *error = u"\"%1\" is no file"_s.arg(path);
        return NumberFile::Unreadable; // one that reads from it may wait for ever
    }
    QByteArray text;
    switch (readFileIfThere(path, kMaxNumberBytes, &text, error)) {
    case FileReading::Missing:
        return NumberFile::Missing; // a server that ends, or fails to start, has removed it since
    case FileReading::Failed:
        return NumberFile::Unreadable;
    case FileReading::Done:
        break;
    }
    if (text.isEmpty()) {
        return NumberFile::Empty; // the server writes it this very moment
    }
    bool isNumber = false;
    const qint64 value = text.trimmed().toLongLong(&isNumber);
    if (!isNumber || value <= 0 || value > limit) {
        *error = u"The file \"%1\" holds no usable number"_s.arg(path);
        return NumberFile::Invalid;
    }
    *number = value;
    return NumberFile::Valid;
}

std::optional<timespec> modificationTime(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) == -1) {
        return std::nullopt;
    }
    return status.st_mtim;
}

/** A killed server leaves its port file behind, and its successor overwrites that later than the pid file. */
bool isOlder(const QString &path, const QString &otherPath)
{
    const std::optional<timespec> first = modificationTime(path);
    const std::optional<timespec> second = modificationTime(otherPath);
    return first && second &&
           (first->tv_sec < second->tv_sec || (first->tv_sec == second->tv_sec && first->tv_nsec < second->tv_nsec));
}

} // namespace

ServerFiles::ServerFiles(const QString &userPath)
    : path(userPath)
{
}

QString ServerFiles::certificatePath() const
{
    return QDir::cleanPath(file(UserFile::kCertificate));
}

QString ServerFiles::keyPath() const
{
    return QDir::cleanPath(file(UserFile::kPrivateKey));
}

QString ServerFiles::sessionDirectory(const QString &id) const
{
    return ::sessionDirectory(sessionsPath(), id);
}

ServerSighting ServerFiles::look() const
{
    // A server that ends removes its files before its process goes. So only what is there behind a look that found no
    // process was left behind.
    ServerSighting sighting = glance();
    for (int count = 0; sighting.trace == ServerTrace::Stale && count < kMaxGlances; ++count) {
        const ServerSighting before = std::exchange(sighting, glance());
        if (sighting.pid == before.pid) {
            break;
        }
    }
    return sighting;
}

ServerSighting ServerFiles::glance() const
{
    ServerSighting sighting;
    QString error;
    const NumberFile pidFile = readNumber(pidPath(), 0x7FFFFFFF, &sighting.pid, &error);
    if (pidFile == NumberFile::Unreadable) {
        return {ServerTrace::Unreadable, 0, 0, error};
    }
    // Told between the two readings: a port that is written after this may be taken for an old one and is looked at
    // again, but no old one is ever taken for that of the server.
    const bool isLeftBehind = pidFile != NumberFile::Missing && isOlder(portPath(), pidPath());
    qint64 port = 0;
    const NumberFile portFile = readNumber(portPath(), 65535, &port, &error);
    if (pidFile == NumberFile::Missing && portFile == NumberFile::Valid) {
        sighting.pid = serverListeningOn(static_cast<quint16>(port)); // somebody has tidied up
    }
    const bool alive = isServerProcess(sighting.pid);
    switch (portFile) {
    case NumberFile::Unreadable:
        return {ServerTrace::Unreadable, 0, sighting.pid, error};
    case NumberFile::Invalid:
        if (alive && !isLeftBehind) {
            return {ServerTrace::Unreadable, 0, sighting.pid, error};
        }
        break;
    case NumberFile::Missing:
        if (!alive) {
            sighting.detail = u"No server is running: there is no file \"%1\""_s.arg(portPath());
            return sighting;
        }
        break;
    case NumberFile::Empty:
        break;
    case NumberFile::Valid:
        if (alive && !isLeftBehind) {
            return {ServerTrace::Running, static_cast<quint16>(port), sighting.pid,
                    u"The server is process %1 on port %2"_s.arg(sighting.pid).arg(port)};
        }
    }
    if (alive) {
        sighting.trace = ServerTrace::Starting;
        sighting.detail = u"The server, process %1, does not tell its port yet"_s.arg(sighting.pid);
    } else {
        sighting.trace = ServerTrace::Stale;
        sighting.detail = u"The server has ended without removing its files: there is \"%1\" and no process%2"_s.arg(
            portPath(), sighting.pid != 0 ? u" %1"_s.arg(sighting.pid) : QString());
    }
    return sighting;
}

QString ServerFiles::file(QLatin1StringView name) const
{
    return QDir(path).filePath(name);
}
