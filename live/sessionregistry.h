// SPDX-License-Identifier: MIT
#pragma once

#include "engine/displays.h"
#include "live/sessioninfo.h"

#include <QMutex>
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
 * The sessions of this server and who works on which of them. Whoever works on a session has marked its id busy, so the
 * one mutex is never held across an engine operation, and different sessions proceed in parallel. Every registered
 * session holds the idle timer, and its display number is reserved until it leaves the registry.
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

    /** Whether somebody works on this id at the moment. */
    [[nodiscard]] bool isBusy(const QString &id) const;
    /**
     * Waits, without a limit, until nobody works on the id and marks it busy for the caller.
     * @param session  set only on success; the caller's until release() or removeSession()
     */
    [[nodiscard]] int acquire(const QString &id, Session **session);
    /**
     * The same for a peek at the session, which never waits: InvalidState when somebody works on the id. reserve()
     * waits for the end of a peek, and refuses an id that is busy otherwise.
     */
    [[nodiscard]] int tryAcquire(const QString &id, Session **session);
    /** Marks an id busy whose session is about to be started; false when somebody works on it. */
    [[nodiscard]] bool reserve(const QString &id);
    void release(const QString &id);
    /**
     * Does short work on a session without waiting for it: at once when nobody works on the session, otherwise on the
     * thread that releases it, before anybody else gets it. A session that is removed or replaced before takes the work
     * with it, and so does later work on the same session. Nothing happens for an unknown id.
     */
    void whenFree(const QString &id, Work work);

    /** Registers the session, busy for the caller. An earlier one of this id, which nobody else may hold, is deleted.
     */
    void addSession(const QString &id, std::unique_ptr<Session> session);
    /** The same for a session that nobody works on. */
    void addFreeSession(const QString &id, std::unique_ptr<Session> session);
    /** Takes the session out and ends the busy mark; the caller decides about the record that is returned. */
    std::unique_ptr<Session> removeSession(const QString &id);
    /** The ids of all sessions in ascending order. */
    [[nodiscard]] QStringList sessionIds() const;

    /** How the session was last listed: see setListed(). */
    [[nodiscard]] std::optional<SessionInfo> lastListed(const QString &id) const;
    /** Notes how the session is listed while somebody works on it. The caller holds the id. */
    void setListed(const QString &id, const SessionInfo &info);

    /** The display numbers in use, by registered sessions and by starts. */
    [[nodiscard]] DisplayReservations *displays() { return &reservations; }

private:
    struct Entry
    {
        std::unique_ptr<Session> session;
        std::optional<SessionInfo> listed;
        Work deferred; ///< waits for the release; may be empty
    };

    void insert(const QString &id, std::unique_ptr<Session> session);
    void releaseDisplay(const Entry &entry);
    [[nodiscard]] int markBusy(const QString &id, Session **session);
    void unmarkBusy(const QString &id);

    DisplayReservations reservations; ///< has a mutex of its own

    mutable QMutex mutex; ///< guards all below
    QWaitCondition changed;
    std::map<QString, Entry> sessions;
    QSet<QString> busy;  ///< ids that one caller works on, or is about to register
    QSet<QString> peeks; ///< those of them that tryAcquire() has marked
};
