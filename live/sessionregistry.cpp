// SPDX-License-Identifier: MIT
#include "live/sessionregistry.h"

#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "engine/session.h"

#include <utility>

SessionRegistry::SessionRegistry() = default;

SessionRegistry::~SessionRegistry()
{
    for (size_t left = sessions.size(); left > 0; --left) {
        releaseSession();
    }
}

bool SessionRegistry::isBusy(const QString &id) const
{
    const QMutexLocker locker(&mutex);
    return busy.contains(id);
}

int SessionRegistry::acquire(const QString &id, Session **session)
{
    const QMutexLocker locker(&mutex);
    while (busy.contains(id)) {
        changed.wait(&mutex);
    }
    return markBusy(id, session);
}

int SessionRegistry::tryAcquire(const QString &id, Session **session)
{
    const QMutexLocker locker(&mutex);
    if (busy.contains(id)) {
        return InvalidState;
    }
    const int code = markBusy(id, session);
    if (code == SessionOk) {
        peeks.insert(id);
    }
    return code;
}

/** Marks a free session busy. The mutex is held. */
int SessionRegistry::markBusy(const QString &id, Session **session)
{
    const auto found = sessions.find(id);
    if (found == sessions.end() || !found->second.session) {
        return NoSuchSession;
    }
    busy.insert(id);
    *session = found->second.session.get();
    return SessionOk;
}

bool SessionRegistry::reserve(const QString &id)
{
    const QMutexLocker locker(&mutex);
    while (peeks.contains(id)) {
        changed.wait(&mutex);
    }
    if (busy.contains(id)) {
        return false;
    }
    busy.insert(id);
    return true;
}

void SessionRegistry::release(const QString &id)
{
    QMutexLocker locker(&mutex);
    finish(id, &locker);
}

void SessionRegistry::whenFree(const QString &id, Work work)
{
    QMutexLocker locker(&mutex);
    const auto found = sessions.find(id);
    if (found == sessions.end() || !found->second.session) {
        return;
    }
    found->second.deferred = std::move(work);
    if (!busy.contains(id)) {
        busy.insert(id);
        finish(id, &locker);
    }
}

/**
 * Does the deferred work on a busy session, then ends the busy mark. @p locker holds the mutex, except during the work.
 */
void SessionRegistry::finish(const QString &id, QMutexLocker<QMutex> *locker)
{
    const auto found = sessions.find(id);
    while (found != sessions.end() && found->second.deferred) {
        const Work work = std::exchange(found->second.deferred, nullptr);
        peeks.insert(id); // the action is over: a start waits for this work instead of failing
        locker->unlock();
        work(*found->second.session); // the busy mark keeps the entry in place
        locker->relock();
    }
    unmarkBusy(id);
}

/** Ends what markBusy() or reserve() began. The mutex is held. */
void SessionRegistry::unmarkBusy(const QString &id)
{
    busy.remove(id);
    peeks.remove(id);
    changed.wakeAll();
}

void SessionRegistry::addSession(const QString &id, std::unique_ptr<Session> session)
{
    const QMutexLocker locker(&mutex);
    insert(id, std::move(session));
    busy.insert(id);
}

void SessionRegistry::addFreeSession(const QString &id, std::unique_ptr<Session> session)
{
    const QMutexLocker locker(&mutex);
    insert(id, std::move(session));
}

/** Registers the session in place of an earlier one of this id. The mutex is held. */
void SessionRegistry::insert(const QString &id, std::unique_ptr<Session> session)
{
    if (session) {
        reservations.hold(session->display);
    }
    const auto [entry, isNew] = sessions.try_emplace(id);
    if (isNew) {
        holdSession(); // a replaced entry holds the idle timer already
    }
    releaseDisplay(entry->second);
    entry->second.session = std::move(session);
    entry->second.deferred = nullptr;
}

void SessionRegistry::releaseDisplay(const Entry &entry)
{
    if (entry.session) {
        reservations.remove(entry.session->display);
    }
}

std::unique_ptr<Session> SessionRegistry::removeSession(const QString &id)
{
    const QMutexLocker locker(&mutex);
    unmarkBusy(id);
    auto entry = sessions.extract(id);
    if (entry.empty()) {
        return nullptr;
    }
    releaseSession();
    releaseDisplay(entry.mapped());
    return std::move(entry.mapped().session);
}

QStringList SessionRegistry::sessionIds() const
{
    const QMutexLocker locker(&mutex);
    QStringList ids;
    ids.reserve(static_cast<qsizetype>(sessions.size()));
    for (const auto &[id, entry] : sessions) {
        ids.append(id);
    }
    return ids;
}

std::optional<SessionInfo> SessionRegistry::lastListed(const QString &id) const
{
    const QMutexLocker locker(&mutex);
    const auto found = sessions.find(id);
    return found == sessions.end() ? std::nullopt : found->second.listed;
}

void SessionRegistry::setListed(const QString &id, const SessionInfo &info)
{
    const QMutexLocker locker(&mutex);
    const auto found = sessions.find(id);
    if (found != sessions.end()) {
        found->second.listed = info;
    }
}
