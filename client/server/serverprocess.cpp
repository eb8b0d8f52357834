// SPDX-License-Identifier: MIT
#include "client/server/serverprocess.h"

#include "base/instancerecord.h"
#include "support/filereader.h"
#include "support/processstat.h"

#include <QFile>

#include <algorithm>
#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxTableBytes = 16 * 1024 * 1024;
constexpr qint64 kMaxPid = 0x7FFFFFFF;

/** What the servers of this USER say about themselves. They cannot be inspected, so /proc shows little of them. */
QList<InstanceRecord> heldRecords()
{
    return lockHolders(InstanceFiles(serverInstanceId(), InstanceFiles::standardFolders()));
}

bool isHolder(qint64 pid)
{
    const QList<InstanceRecord> records = heldRecords();
    return std::any_of(records.begin(), records.end(),
                       [pid](const InstanceRecord &record) { return record.pid == pid; });
}

/** Whether the process exists and is of our user, where /proc does not show it. */
bool canSignal(qint64 pid)
{
    return pid <= kMaxPid && ::kill(static_cast<pid_t>(pid), 0) == 0;
}

QByteArray contents(const QString &path)
{
    QByteArray text;
    QString ignored;
    return readFile(path, kMaxTableBytes, &text, &ignored) ? text : QByteArray();
}

/** Whether a process of this user listens on the port. */
bool isListening(quint16 port)
{
    constexpr qsizetype kLocal = 1;
    constexpr qsizetype kState = 3;
    constexpr qsizetype kOwner = 7;
    const QByteArray end = ':' + QByteArray::number(port, 16).rightJustified(4, '0').toUpper();
    const QByteArray owner = QByteArray::number(::geteuid());
    for (const QString &table : {u"/proc/net/tcp"_s, u"/proc/net/tcp6"_s}) {
        for (const QByteArray &line : contents(table).split('\n')) {
            const QList<QByteArray> fields = line.simplified().split(' ');
            if (fields.size() > kOwner && fields[kLocal].endsWith(end) && fields[kState] == "0A" &&
                fields[kOwner] == owner) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

bool isServerProcess(qint64 pid)
{
    if (pid <= 0) {
        return false;
    }
    const std::optional<ProcessStat> process = readProcessStat(pid);
    if (!process) {
        // A /proc that is mounted with "hidepid" hides even our own processes if they cannot be inspected.
        return canSignal(pid) && isHolder(pid);
    }
    struct stat status = {};
    const bool isOurs =
        ::stat(QFile::encodeName(u"/proc/%1"_s.arg(pid)).constData(), &status) == 0 && status.st_uid == ::geteuid();
    // The kernel reuses pids, so the name must match as well.
    return isOurs && !process->hasEnded && process->name == "zarvo_server";
}

std::optional<QString> environmentOf(qint64 pid, const QString &variable)
{
    for (const InstanceRecord &record : heldRecords()) {
        if (const std::optional<QByteArray> value = record.variable(variable.toLocal8Bit());
            record.pid == pid && value) {
            return QString::fromLocal8Bit(*value);
        }
    }
    return std::nullopt;
}

QList<qint64> serversOfSameUser()
{
    QList<qint64> same;
    for (const InstanceRecord &record : heldRecords()) {
        if (isServerProcess(record.pid)) {
            same.append(record.pid);
        }
    }
    return same;
}

qint64 serverListeningOn(quint16 port)
{
    if (!isListening(port)) {
        return 0;
    }
    return serversOfSameUser().value(0);
}
