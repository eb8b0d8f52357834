// SPDX-License-Identifier: MIT
#include "live/sessionstore.h"

#include "contract/sessionerror.h"
#include "engine/session.h"
#include "engine/supervision.h"
#include "live/sessionlease.h"
#include "live/sessionscan.h"

#include <csignal>

namespace {

/** Whether the session has been without a client for this long. One that never had a client is idle at once. */
bool isIdle(const Session &session, qint32 seconds)
{
    return session.clients == 0 &&
           (session.lastDisconnect.isNull() || QDateTime::currentDateTime() >= session.lastDisconnect.addSecs(seconds));
}

} // namespace

SessionStore::SessionStore(const QString &root, quint16 displayBase, quint16 displayLimit, const QString &location_)
    : location(location_)
    , actions(&registry, root, displayBase, displayLimit, location)
{
    scanSessions(root, &registry);
}

SessionStore::~SessionStore() = default;

void SessionStore::addSession(const QString &id, std::unique_ptr<Session> session)
{
    registry.addSession(id, std::move(session));
}

std::unique_ptr<Session> SessionStore::removeSession(const QString &id)
{
    return registry.removeSession(id);
}

void SessionStore::refreshAll(QList<SessionInfo> &out)
{
    purgeRemoteSessions();
    out = remoteSessions();
    const QStringList ids = sessionIds();
    for (const QString &id : ids) {
        if (const std::optional<SessionInfo> info = refreshOne(id)) {
            out.append(*info);
        }
    }
}

std::optional<SessionInfo> SessionStore::refreshOne(const QString &id)
{
    SessionLease lease(&registry, id, SessionLease::IfFree());
    if (lease.code() == InvalidState) {
        return registry.lastListed(id);
    }
    if (lease.code() != SessionOk) {
        return std::nullopt;
    }
    if (refreshSession(lease.get()) != SessionOk) {
        lease.remove();
        return std::nullopt;
    }
    if (lease->exited) {
        lease.removeEnded();
        return std::nullopt;
    }
    const SessionInfo info(id, location, *lease);
    registry.setListed(id, info); // under the lease, so that it cannot be the description of a replaced session
    return info;
}

int SessionStore::listLocalSessions(QList<SessionInfo> &out)
{
    out.clear();
    return appendLocalSessions(&out);
}

int SessionStore::listSessions(QList<SessionInfo> &out)
{
    out = remoteSessions();
    return appendLocalSessions(&out);
}

int SessionStore::appendLocalSessions(QList<SessionInfo> *out)
{
    const QStringList ids = sessionIds();
    for (const QString &id : ids) {
        const SessionLease lease(&registry, id);
        if (lease.code() != SessionOk) {
            return lease.code();
        }
        out->append(SessionInfo(id, location, *lease));
    }
    return SessionOk;
}

void SessionStore::suspendIdle(int minutes)
{
    // A huge setting wraps around in 32 bits. The product is unsigned, because a signed overflow is undefined.
    const auto seconds = static_cast<qint32>(static_cast<quint32>(minutes) * 60U);
    const QStringList ids = sessionIds();
    for (const QString &id : ids) {
        registry.whenFree(id, [seconds](const Session &session) {
            if (isIdle(session, seconds)) {
                [[maybe_unused]] const int code = signalSession(session, SIGTERM);
            }
        });
    }
}

int SessionStore::start(const QString &id, const QString &command, const QString &geometry, QString &password,
                        quint16 &port)
{
    return actions.start(id, command, geometry, &password, &port);
}

int SessionStore::resume(const QString &id, QString &windowMode, QString &geometry, QString &password, quint16 &port)
{
    return actions.resume(id, &windowMode, &geometry, &password, &port);
}

int SessionStore::replay(const QString &id, QString &windowMode, QString &geometry, QString &password, quint16 &port)
{
    return actions.replay(id, &windowMode, &geometry, &password, &port);
}

int SessionStore::suspend(const QString &id)
{
    return actions.suspend(id);
}

int SessionStore::terminate(const QString &id)
{
    return actions.terminate(id);
}

void SessionStore::storeRemoteSessions(const QString &key, const QDateTime &expiry, const QList<SessionInfo> &list)
{
    peers.store(key, expiry, list);
}

void SessionStore::forgetRemoteSessions(const QString &key)
{
    peers.forget(key);
}

void SessionStore::purgeRemoteSessions()
{
    peers.purge();
}

QList<SessionInfo> SessionStore::remoteSessions() const
{
    return peers.sessions();
}
