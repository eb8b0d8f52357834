// SPDX-License-Identifier: MIT
#pragma once

#include "engine/displays.h"
#include "live/sessioninfo.h"

#include <QMutex>
#include <QMutexLocker>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QWaitCondition>

#include <functional>
#include <map>
#include <memory>
#include <optional>

struct Session;

/**
 * The sessions of this server and their busy marks. A caller marks an id busy before it works on the session, so the
 * one mutex is never held across an engine operation, and different sessions proceed in parallel. Every registered
 * session holds the idle timer and reserves its display number until it leaves the registry.
 *
 * Callable from any thread. Codes are SessionOk or a SessionError.
 */
class SessionRegistry final
{
public:
    using Work = std::function<void(const Session &session)>;

    SessionRegistry();
    /** Deletes all records. The sessions run on. */
    ~SessionRegistry();
    Q_DISABLE_COPY_MOVE(SessionRegistry)

    /** Whether a caller works on this id at the moment. */
    [[nodiscard]] bool isBusy(const QString &id) const;
    /**
     * Waits, without a limit, until the id is free, and marks it busy for the caller.
     * @param session  set only on success; the caller's until release() or removeSession()
     */
    [[nodiscard]] int acquire(const QString &id, Session **session);
    /**
     * The same for a peek at the session, which never waits: InvalidState when the id is busy. reserve() waits for the
     * end of a peek, but refuses an id that is busy for another reason.
     */
    [[nodiscard]] int tryAcquire(const QString &id, Session **session);
    /** Marks an id busy before its session is started; false when the id is busy. */
    [[nodiscard]] bool reserve(const QString &id);
    void release(const QString &id);
    /**
     * Does short work on a session without waiting for it. If the session is free, the work is done at once. If it is
     * busy, the thread that releases it does the work first. The work is dropped if the id is unknown, if the session
     * is removed or replaced before its release, or if later work on the session replaces it.
     */
    void whenFree(const QString &id, Work work);

    /**
     * Registers the session, busy for the caller. Deletes an earlier session of this id, which no other caller may
     * hold; its description stays listed until the new session is listed.
     */
    void addSession(const QString &id, std::unique_ptr<Session> session);
    /** The same, but the id is not marked busy. */
    void addFreeSession(const QString &id, std::unique_ptr<Session> session);
    /** Takes the session out, ends the busy mark and hands the record to the caller; null for an unknown id. */
    std::unique_ptr<Session> removeSession(const QString &id);
    /** The ids of all sessions in ascending order. */
    [[nodiscard]] QStringList sessionIds() const;

    /** The description of the last setListed(); nothing if the session was never listed. */
    [[nodiscard]] std::optional<SessionInfo> lastListed(const QString &id) const;
    /** Keeps the description under which the session is listed while it is busy. The caller holds the id. */
    void setListed(const QString &id, const SessionInfo &info);

    /** The display numbers in use, by registered sessions and by starts. */
    [[nodiscard]] DisplayReservations *displays() { return &reservations; }

private:
    struct Entry
    {
        std::unique_ptr<Session> session;
        std::optional<SessionInfo> listed;
        Work deferred; ///< to be done at the release; may be empty
    };

    void insert(const QString &id, std::unique_ptr<Session> session);
    void releaseDisplay(const Entry &entry);
    [[nodiscard]] int markBusy(const QString &id, Session **session);
    void finish(const QString &id, QMutexLocker<QMutex> *locker);
    void unmarkBusy(const QString &id);

    DisplayReservations reservations; ///< has a mutex of its own

    mutable QMutex mutex; ///< guards all below
    QWaitCondition changed;
    std::map<QString, Entry> sessions;
    QSet<QString> busy;  ///< ids that a caller works on, or is about to register
    QSet<QString> peeks; ///< the busy ids whose holder is done soon, so that reserve() waits
};
