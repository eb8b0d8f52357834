// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

struct Session;
class SessionRegistry;

/**
 * The right to work on one session while all others wait. On every way out of its scope it ends in exactly one
 * release() or removeSession() of the registry. Used by the thread that created it.
 */
class SessionLease final
{
public:
    /** Selects the constructor that never waits. */
    struct IfFree
    {
    };

    /** Waits until the session is free and takes it; code() says whether that worked. */
    SessionLease(SessionRegistry *registry, const QString &id);
    /** Takes the session for a peek if it is free. */
    SessionLease(SessionRegistry *registry, const QString &id, IfFree);
    /** Takes over an id that the caller has already marked busy. */
    SessionLease(SessionRegistry *registry, const QString &id, Session *session);
    ~SessionLease();
    Q_DISABLE_COPY_MOVE(SessionLease)

    /** SessionOk, or why there is no session to work on. */
    [[nodiscard]] int code() const { return acquireCode; }

    [[nodiscard]] Session *operator->() const { return session; }
    [[nodiscard]] Session &operator*() const { return *session; }
    [[nodiscard]] Session *get() const { return session; }

    /**
     * Takes the session out of the registry and deletes its record. The lease is over. Removes the stale display files
     * of an agent that has ended.
     */
    void remove();

    /** The same for a session that has ended. If its exit code is 0, removes its directory too; a failure is logged. */
    void removeEnded();

    /** Call it after an operation failed with @p failure, which it returns: removes the session if it is broken. */
    int removeIfBroken(int failure);

private:
    SessionRegistry *registry; ///< not owned
    QString id;
    Session *session = nullptr; ///< null when there is nothing to give back
    int acquireCode = 0;
};
