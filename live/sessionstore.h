// SPDX-License-Identifier: MIT
#pragma once

#include "live/peerlists.h"
#include "live/sessionactions.h"
#include "live/sessioninfo.h"
#include "live/sessionregistry.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

struct Session;

/**
 * All that the server does with sessions: its own ones, which it keeps in the registry, and the lists that peers
 * reported.
 *
 * Created on the main thread; every other function may be called from any thread. Codes are SessionOk or a
 * SessionError.
 */
class SessionStore final
{
public:
    /**
     * Registers the sessions found below @p root whose files can be read.
     * @param displayBase,displayLimit  the display numbers for new sessions, the limit excluded
     * @param location                  the URL under which the sessions are advertised; may be empty
     */
    SessionStore(const QString &root, quint16 displayBase, quint16 displayLimit, const QString &location);
    /** Forgets all sessions. They run on and are found again by the next store. */
    ~SessionStore();
    Q_DISABLE_COPY_MOVE(SessionStore)

    /** The registry's functions of the same names. */
    [[nodiscard]] bool isBusy(const QString &id) const { return registry.isBusy(id); }
    [[nodiscard]] int acquire(const QString &id, Session *&session) { return registry.acquire(id, &session); }
    [[nodiscard]] int tryAcquire(const QString &id, Session *&session) { return registry.tryAcquire(id, &session); }
    void release(const QString &id) { registry.release(id); }
    void addSession(const QString &id, std::unique_ptr<Session> session);
    std::unique_ptr<Session> removeSession(const QString &id);
    [[nodiscard]] QStringList sessionIds() const { return registry.sessionIds(); }

    /**
     * Refreshes every session, drops those that are gone, and lists peers' sessions, then the local ones. A session
     * that somebody works on is listed as it was the last time, because an action may take half a minute and this pass
     * must not hold up the main thread that long. A new session is not listed until the end of its start; one that
     * takes the place of a listed one is listed as that one until then. One thread at a time may call it.
     */
    void refreshAll(QList<SessionInfo> &out);
    /** The local sessions as the last refresh left them; fails when one goes while the listing waits for it. */
    [[nodiscard]] int listLocalSessions(QList<SessionInfo> &out);
    /** The same, behind what peers reported. */
    [[nodiscard]] int listSessions(QList<SessionInfo> &out);
    /**
     * Asks every session to end that has been without a client for this many minutes. Never waits: a session that
     * somebody works on is checked by the thread that ends this work.
     */
    void suspendIdle(int minutes);

    /** Starts a session and its application. Blocks for up to half a minute and more. */
    [[nodiscard]] int start(const QString &id, const QString &command, const QString &geometry, QString &password,
                            quint16 &port);
    /** Has the agent offer a new password. Blocks for up to 15 seconds and waits for whoever holds the session. */
    [[nodiscard]] int resume(const QString &id, QString &windowMode, QString &geometry, QString &password,
                             quint16 &port);
    /** Hands out the password that the agent offers already. */
    [[nodiscard]] int replay(const QString &id, QString &windowMode, QString &geometry, QString &password,
                             quint16 &port);
    /** Disconnects all clients. Blocks like resume(). */
    [[nodiscard]] int suspend(const QString &id);
    /** Ends the session and removes its directory when it ended well. Blocks like resume(). */
    [[nodiscard]] int terminate(const QString &id);

    /** Replaces the list of the peer @p key, which counts until @p expiry. */
    void storeRemoteSessions(const QString &key, const QDateTime &expiry, const QList<SessionInfo> &list);
    void forgetRemoteSessions(const QString &key);
    /** Forgets every peer's list that has expired. */
    void purgeRemoteSessions();
    /** What all peers reported, in the order of their keys. */
    [[nodiscard]] QList<SessionInfo> remoteSessions() const;

private:
    [[nodiscard]] std::optional<SessionInfo> refreshOne(const QString &id);
    [[nodiscard]] int appendLocalSessions(QList<SessionInfo> *out);

    const QString location;
    SessionRegistry registry;
    PeerLists peers;
    SessionActions actions;
};
