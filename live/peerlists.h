// SPDX-License-Identifier: MIT
#pragma once

#include "live/peerfile.h"
#include "live/sessioninfo.h"

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>

#include <memory>

/** The sessions that peers reported, a list for each peer. Owned by the SessionStore; callable from any thread. */
class PeerLists final
{
public:
    PeerLists() = default;
    Q_DISABLE_COPY_MOVE(PeerLists)

    /** Writes each change to the file at @p path from now on. Called once, before other threads use the object. */
    void keepFile(const QString &path);

    /** Replaces the list of the peer @p key, which is valid until @p expiry. */
    void store(const QString &key, const QDateTime &expiry, const QList<SessionInfo> &list);
    void forget(const QString &key);
    /** Forgets every list that has expired. */
    void purge();
    /** All lists in the order of their keys, including those that have expired since the last purge(). */
    [[nodiscard]] QList<SessionInfo> sessions() const;

private:
    void saveFile();

    QMutex fileMutex; ///< guards the file; taken before the other one, so that the newest lists are written last
    std::unique_ptr<PeerFile> file;
    mutable QMutex mutex; ///< guards all below; never held while the disk is used
    QMap<QString, QDateTime> remoteExpiry;
    QMap<QString, QList<SessionInfo>> remoteLists;
};
