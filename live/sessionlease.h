// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

struct Session;
class SessionRegistry;

/**
 * The right to work on one session while everybody else waits: ends in exactly one release() or removeSession() of the
 * registry, on every way out of the scope that holds it. Used by the thread that made it.
 */
class SessionLease final
{
public:
    /** Says that the caller would rather go without the session than wait for it. */
    struct IfFree
    {
    };

    /** Waits until nobody works on the session and takes it; code() says whether that worked. */
    SessionLease(SessionRegistry *registry, const QString &id);
    /** Takes the session for a peek, and only if nobody works on it. */
    SessionLease(SessionRegistry *registry, const QString &id, IfFree);
    /** Takes over an id that is busy on the caller's behalf already. */
    SessionLease(SessionRegistry *registry, const QString &id, Session *session);
    ~SessionLease();
    Q_DISABLE_COPY_MOVE(SessionLease)

    /** SessionOk, or why there is no session to work on. */
    [[nodiscard]] int code() const { return acquireCode; }

    [[nodiscard]] Session *operator->() const { return session; }
    [[nodiscard]] Session &operator*() const { return *session; }
    [[nodiscard]] Session *get() const { return session; }

    /**
     * Takes the session out of the registry and deletes its record; the lease is over. What an agent that was killed
     * has left of its display goes as well.
     */
    void remove();

    /** The same for a session that has ended. When it ended well its directory goes as well; failures are logged. */
    void removeEnded();

    /** Ends the lease after an operation that failed with @p failure: a broken session is removed. */
    int removeIfBroken(int failure);

private:
    SessionRegistry *registry; ///< not owned
    QString id;
    Session *session = nullptr; ///< null when there is nothing to give back
    int acquireCode = 0;
};
