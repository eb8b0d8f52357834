// SPDX-License-Identifier: MIT
#include "agent/applications/processtree.h"

#include "support/filereader.h"

#include <QDir>
#include <QMultiHash>

#include <cerrno>
#include <csignal>
#include <optional>

#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxStatBytes = 4096;

struct ProcessStat
{
    pid_t parent = 0;
    bool isLive = false;
};

/** The file reads "pid (name) state parent ...". The name may hold anything, also parentheses. */
std::optional<ProcessStat> readStat(const QString &pid)
{
    QByteArray text;
    QString error;
    if (!readFile(u"/proc/%1/stat"_s.arg(pid), kMaxStatBytes, &text, &error)) {
        return std::nullopt; // the process has ended since it was listed
    }
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 2) {
        return std::nullopt;
    }
    const bool isLive = fields[0] != "Z" && fields[0] != "X";
    return ProcessStat{fields[1].toInt(), isLive};
}

} // namespace

QList<pid_t> liveDescendants(pid_t root, pid_t except)
{
    QMultiHash<pid_t, pid_t> childrenOf;
    QSet<pid_t> dead;
    for (const QString &entry : QDir(u"/proc"_s).entryList(QDir::Dirs)) {
        bool isPid = false;
        const pid_t pid = entry.toInt(&isPid);
        const std::optional<ProcessStat> stat = isPid ? readStat(entry) : std::nullopt;
        if (!stat) {
            continue;
        }
        childrenOf.insert(stat->parent, pid);
        if (!stat->isLive) {
            dead.insert(pid);
        }
    }

    QList<pid_t> found = {root};
    for (qsizetype i = 0; i < found.size(); ++i) {
        for (const pid_t child : childrenOf.values(found[i])) {
            if (child != except && !dead.contains(child) && !found.contains(child)) {
                found.append(child);
            }
        }
    }
    found.removeFirst();
    return found;
}

QSet<pid_t> liveChildren()
{
    QSet<pid_t> children;
    for (const QString &entry : QDir(u"/proc"_s).entryList(QDir::Dirs)) {
        bool isPid = false;
        const pid_t pid = entry.toInt(&isPid);
        const std::optional<ProcessStat> stat = isPid ? readStat(entry) : std::nullopt;
        if (stat && stat->isLive && stat->parent == ::getpid()) {
            children.insert(pid);
        }
    }
    return children;
}

void signalAll(const QList<pid_t> &processes, int number)
{
    for (const pid_t pid : processes) {
        ::kill(pid, number);
    }
}

bool becomeSubreaper(QString *error)
{
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        *error = u"Failed to become the parent of orphaned processes: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    return true;
}
