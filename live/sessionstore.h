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
 * All that the server does with sessions: it keeps its own ones in the registry, refreshes and lists them, and carries
 * out the actions. It also keeps the lists that peers reported.
 *
 * Created on the main thread; every other function may be called from any thread. Codes are SessionOk or a
 * SessionError.
 */
class SessionStore final
{
public:
    /**
     * Registers the sessions found below @p root whose files can be read.
     * @param displayBase,displayLimit  the range of display numbers for new sessions; the limit is excluded
     * @param location                  the URL under which the sessions are advertised; may be empty
     */
    SessionStore(const QString &root, quint16 displayBase, quint16 displayLimit, const QString &location);
    /** Forgets all sessions. They run on, and the next store finds them again. */
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
     * Refreshes every session, drops those that have ended, and lists the peers' sessions, then the local ones. A busy
     * session is not waited for, because an action may take half a minute and would block the main thread. It is listed
     * as it was the last time. A new session is listed from the end of its start on; until then an earlier session of
     * its id stays listed. Only one thread at a time may call it.
     */
    void refreshAll(QList<SessionInfo> &out);
    /**
     * The local sessions as the last refresh left them. Waits for busy ones; fails when one is removed meanwhile.
     */
    [[nodiscard]] int listLocalSessions(QList<SessionInfo> &out);
    /** The peers' sessions, then the local ones as listLocalSessions() lists them. */
    [[nodiscard]] int listSessions(QList<SessionInfo> &out);
    /**
     * Sends SIGTERM to every session that has been without a client for this many minutes. Never waits: the thread that
     * works on a busy session checks it when it releases the session.
     */
    void suspendIdle(int minutes);

    /** Starts a session and its application. Blocks for up to half a minute and more. */
    [[nodiscard]] int start(const QString &id, const QString &command, const QString &geometry, QString &password,
                            quint16 &port);
    /** Has the agent offer a new password. Waits until the session is free, then blocks for up to 15 seconds. */
    [[nodiscard]] int resume(const QString &id, QString &windowMode, QString &geometry, QString &password,
                             quint16 &port);
    /** Returns the password that the agent already offers. Waits until the session is free. */
    [[nodiscard]] int replay(const QString &id, QString &windowMode, QString &geometry, QString &password,
                             quint16 &port);
    /** Disconnects all clients. Blocks like resume(). */
    [[nodiscard]] int suspend(const QString &id);
    /** Ends the session and removes its directory if the exit code is 0. Blocks like resume(). */
    [[nodiscard]] int terminate(const QString &id);

    /** Writes what the peers report to a file; see PeerFile. Called once, before other threads use the store. */
    void keepPeerFile(const QString &path) { peers.keepFile(path); }
    /** Replaces the list of the peer @p key, which is valid until @p expiry. */
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
