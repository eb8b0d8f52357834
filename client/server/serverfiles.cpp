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

constexpr qint64 kMaxPid = 0x7FFFFFFF;
constexpr qint64 kMaxPort = 65535;

/** Bounds the loop when each reading finds the files of yet another dead server. */
constexpr int kMaxRetries = 10;

NumberFile readNumber(const QString &path, qint64 limit, qint64 *number, QString *error)
{
    if (!QFile::exists(path)) {
        return NumberFile::Missing;
    }
    if (isSpecialFile(path)) {
        *error = u"\"%1\" is not a file"_s.arg(path);
        return NumberFile::Unreadable; // reading from a pipe may never end
    }
    QByteArray text;
    switch (readFileIfThere(path, kMaxNumberBytes, &text, error)) {
    case FileReading::Missing:
        return NumberFile::Missing; // removed meanwhile by a server that ends or fails to start
    case FileReading::Failed:
        return NumberFile::Unreadable;
    case FileReading::Done:
        break;
    }
    if (text.isEmpty()) {
        return NumberFile::Empty; // the server is writing it
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

/** A killed server leaves its port file behind; its successor writes the pid file first, then the port file. */
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

ServerStatus ServerFiles::readStatus() const
{
    // A server that ends removes its files before its process ends. So files are stale only if they still exist after
    // a reading that found no process.
    ServerStatus status = classify(readFacts());
    for (int retry = 0; status.state == ServerState::Stale && retry < kMaxRetries; ++retry) {
        const ServerStatus before = std::exchange(status, classify(readFacts()));
        if (status.pid == before.pid) {
            break;
        }
    }
    return status;
}

ServerFacts ServerFiles::readFacts() const
{
    ServerFacts facts;
    facts.portPath = portPath();
    facts.pidFile = readNumber(pidPath(), kMaxPid, &facts.pid, &facts.error);
    if (facts.pidFile == NumberFile::Unreadable) {
        return facts;
    }
    // Compare before reading the port. A port that is written in between then counts as old and is read again. In the
    // other order, a server could get the port of an earlier one.
    facts.isPortOlder = facts.pidFile != NumberFile::Missing && isOlder(portPath(), pidPath());
    facts.portFile = readNumber(portPath(), kMaxPort, &facts.port, &facts.error);
    if (facts.pidFile == NumberFile::Missing && facts.portFile == NumberFile::Valid) {
        facts.pid = serverListeningOn(static_cast<quint16>(facts.port)); // the user has removed the pid file
    }
    facts.isAlive = isServerProcess(facts.pid);
    return facts;
}

QString ServerFiles::file(QLatin1StringView name) const
{
    return QDir(path).filePath(name);
}
