// SPDX-License-Identifier: MIT
#include "client/server/serverprocess.h"

#include "support/filereader.h"
#include "support/processstat.h"

#include <QDir>
#include <QFile>
#include <QSet>

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxNameBytes = 64;
constexpr int kMaxEnvironmentBytes = 1024 * 1024;
constexpr int kMaxTableBytes = 16 * 1024 * 1024;

QString processPath(qint64 pid)
{
    return u"/proc/%1"_s.arg(pid);
}

QByteArray contents(const QString &path, int limit)
{
    QByteArray text;
    QString ignored;
    return readFile(path, limit, &text, &ignored) ? text : QByteArray();
}

QList<qint64> ownServers()
{
    QList<qint64> pids;
    for (const QString &name : QDir(u"/proc"_s).entryList({u"[1-9]*"_s}, QDir::Dirs)) {
        if (const qint64 pid = name.toLongLong(); isServerProcess(pid)) {
            pids.append(pid);
        }
    }
    return pids;
}

/** The sockets that listen on a port, in the form of the links in /proc/PID/fd. */
QSet<QString> listeners(quint16 port)
{
    constexpr qsizetype kLocal = 1;
    constexpr qsizetype kState = 3;
    constexpr qsizetype kInode = 9;
    const QByteArray end = ':' + QByteArray::number(port, 16).rightJustified(4, '0').toUpper();
    QSet<QString> found;
    for (const QString &table : {u"/proc/net/tcp"_s, u"/proc/net/tcp6"_s}) {
        for (const QByteArray &line : contents(table, kMaxTableBytes).split('\n')) {
            const QList<QByteArray> fields = line.simplified().split(' ');
            if (fields.size() > kInode && fields[kLocal].endsWith(end) && fields[kState] == "0A") {
                found.insert(u"socket:[%1]"_s.arg(QString::fromLatin1(fields[kInode])));
            }
        }
    }
    return found;
}

QString linkTarget(const QString &path)
{
    QByteArray target(kMaxNameBytes, '\0');
    const ssize_t length = ::readlink(QFile::encodeName(path).constData(), target.data(), kMaxNameBytes);
    return length > 0 ? QString::fromLatin1(target.first(length)) : QString();
}

} // namespace

bool isServerProcess(qint64 pid)
{
    struct stat status = {};
    if (pid <= 0 || ::stat(QFile::encodeName(processPath(pid)).constData(), &status) == -1 ||
        status.st_uid != ::geteuid()) {
        return false;
    }
    // The kernel reuses pids, so the name must match as well.
    const std::optional<ProcessStat> process = readProcessStat(pid);
    return process && !process->hasEnded && process->name == "zarvo_server";
}

std::optional<QString> environmentOf(qint64 pid, const QString &variable)
{
    const QByteArray begin = variable.toLocal8Bit() + '=';
    for (const QByteArray &entry : contents(processPath(pid) + u"/environ"_s, kMaxEnvironmentBytes).split('\0')) {
        if (entry.startsWith(begin)) {
            return QString::fromLocal8Bit(entry.sliced(begin.size()));
        }
    }
    return std::nullopt;
}

QList<qint64> serversOfSameUser()
{
    const QString user = qEnvironmentVariable("USER");
    QList<qint64> same;
    for (const qint64 pid : ownServers()) {
        if (environmentOf(pid, u"USER"_s).value_or(QString()) == user) {
            same.append(pid);
        }
    }
    return same;
}

qint64 serverListeningOn(quint16 port)
{
    const QSet<QString> sockets = listeners(port);
    for (const qint64 pid : sockets.isEmpty() ? QList<qint64>() : ownServers()) {
        const QDir descriptors(processPath(pid) + u"/fd"_s);
        const QStringList names = descriptors.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
        if (std::any_of(names.begin(), names.end(), [&](const QString &name) {
                return sockets.contains(linkTarget(descriptors.filePath(name)));
            })) {
            return pid;
        }
    }
    return 0;
}
