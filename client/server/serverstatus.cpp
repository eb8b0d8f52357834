// SPDX-License-Identifier: MIT
#include "client/server/serverstatus.h"

using namespace Qt::StringLiterals;

namespace {

ServerStatus missing(qint64 pid, const QString &portPath)
{
    return {ServerState::Missing, 0, pid, u"No server is running: there is no file \"%1\""_s.arg(portPath)};
}

ServerStatus starting(qint64 pid)
{
    return {ServerState::Starting, 0, pid, u"The server, process %1, has not written its port yet"_s.arg(pid)};
}

ServerStatus stale(qint64 pid, const QString &portPath)
{
    return {ServerState::Stale, 0, pid,
            u"The server has ended without removing its files: there is \"%1\" and no process%2"_s.arg(
                portPath, pid != 0 ? u" %1"_s.arg(pid) : QString())};
}

ServerStatus running(qint64 pid, quint16 port)
{
    return {ServerState::Running, port, pid, u"The server is process %1 on port %2"_s.arg(pid).arg(port)};
}

} // namespace

ServerStatus classify(const ServerFacts &facts)
{
    if (facts.pidFile == NumberFile::Unreadable || facts.portFile == NumberFile::Unreadable) {
        return {ServerState::Unreadable, 0, facts.pid, facts.error};
    }
    if (!facts.isAlive) {
        return facts.portFile == NumberFile::Missing ? missing(facts.pid, facts.portPath)
                                                     : stale(facts.pid, facts.portPath);
    }
    if (!facts.isPortOlder && facts.portFile == NumberFile::Invalid) {
        return {ServerState::Unreadable, 0, facts.pid, facts.error};
    }
    if (!facts.isPortOlder && facts.portFile == NumberFile::Valid) {
        return running(facts.pid, static_cast<quint16>(facts.port));
    }
    return starting(facts.pid);
}
