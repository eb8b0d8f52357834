// SPDX-License-Identifier: MIT
#include "agent/applications/processtree.h"

#include "support/processstat.h"

#include <QDir>
#include <QMultiHash>

#include <cerrno>
#include <csignal>

#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

QList<pid_t> liveDescendants(pid_t root, pid_t except)
{
    QMultiHash<pid_t, pid_t> childrenOf;
    QSet<pid_t> dead;
    for (const QString &entry : QDir(u"/proc"_s).entryList(QDir::Dirs)) {
        bool isPid = false;
        const pid_t pid = entry.toInt(&isPid);
        const std::optional<ProcessStat> stat = isPid ? readProcessStat(pid) : std::nullopt;
        if (!stat) {
            continue;
        }
        childrenOf.insert(stat->parent, pid);
        if (stat->hasEnded) {
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
        const std::optional<ProcessStat> stat = isPid ? readProcessStat(pid) : std::nullopt;
        if (stat && !stat->hasEnded && stat->parent == ::getpid()) {
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
