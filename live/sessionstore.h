// SPDX-License-Identifier: MIT
#pragma once

#include "engine/displays.h"
#include "live/sessioninfo.h"

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QWaitCondition>

#include <map>
#include <memory>
#include <optional>

struct Session;

/**
 * The registry of this server's sessions, and of the lists that peers reported. All work on one session is
 * serialised by a busy mark on its id, so that the one mutex is never held across an engine operation;
 * different sessions proceed in parallel. Every registered session holds the idle timer.
 *
 * Created on the main thread; every other function may be called from any thread. Codes are SessionOk or a
 * SessionError.
 */
class SessionStore
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

    /** Whether somebody works on this id at the moment. */
    [[nodiscard]] bool isBusy(const QString &id) const;
    /**
     * Waits, without a limit, until nobody works on the id and marks it busy for the caller.
     * @param session  set only on success; the caller's until release() or removeSession()
     */
    [[nodiscard]] int acquire(const QString &id, Session *&session);
    /**
     * The same without waiting, for a short look at the session: InvalidState when somebody works on the id. A start
     * waits for the end of such a look, where it refuses an id that is busy otherwise.
     */
    [[nodiscard]] int tryAcquire(const QString &id, Session *&session);
    void release(const QString &id);
    /** Registers the session, busy for the caller. An earlier one of this id, which nobody may hold, is deleted. */
    void addSession(const QString &id, std::unique_ptr<Session> session);
    /** Takes the session out; the caller decides about the record that is returned. */
    std::unique_ptr<Session> removeSession(const QString &id);
    /** The ids of all sessions in ascending order. */
    [[nodiscard]] QStringList sessionIds() const;

    /**
     * Refreshes every session, drops those that are gone, and lists peers' sessions, then the local ones. A session
     * that somebody works on is listed as it was the last time, or at the end of its start, and not at all before that:
     * an action may take half a minute, for which this pass would hold up the main thread. One thread at a time may
     * call it.
     */
    void refreshAll(QList<SessionInfo> &out);
    /** The local sessions as the last refresh left them; fails when one goes while the listing waits for it. */
    [[nodiscard]] int listLocalSessions(QList<SessionInfo> &out);
    /** The same, behind what peers reported. */
    [[nodiscard]] int listSessions(QList<SessionInfo> &out);
    /**
     * Asks every session to end that has been without a client for this many minutes. One that somebody works on is
     * left for the next time.
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
    /** A registered session: its display number is reserved until it leaves the registry. */
    struct Entry
    {
        std::unique_ptr<Session> session;
        std::optional<SessionInfo> listed; ///< as the last refreshAll() listed it, or as its start left it
    };

    void scan();
    [[nodiscard]] QStringList load(const QStringList &paths);
    void insert(const QString &id, std::unique_ptr<Session> session);
    void releaseDisplay(const Entry &entry);
    [[nodiscard]] bool reserve(const QString &id);
    [[nodiscard]] int startReserved(const QString &id, const QString &command, const QString &geometry,
                                    QString &password, quint16 &port);
    [[nodiscard]] std::optional<SessionInfo> refreshOne(const QString &id);
    [[nodiscard]] std::optional<SessionInfo> lastListed(const QString &id) const;
    void setListed(const QString &id, const SessionInfo &info);
    [[nodiscard]] int markBusy(const QString &id, Session *&session);
    void unmarkBusy(const QString &id);
    [[nodiscard]] int appendLocalSessions(QList<SessionInfo> &out);

    const QString root;
    const quint16 displayBase;
    const quint16 displayLimit;
    const QString location;
    DisplayReservations reservations; ///< has a mutex of its own

    mutable QMutex mutex; ///< guards all below
    QWaitCondition changed;
    std::map<QString, Entry> sessions;
    QMap<QString, QDateTime> remoteExpiry;
    QMap<QString, QList<SessionInfo>> remoteLists;
    QSet<QString> busy;    ///< ids that one caller works on, or is about to register
    QSet<QString> glances; ///< those of them that tryAcquire() has marked
};
