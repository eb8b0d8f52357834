// SPDX-License-Identifier: MIT
#pragma once

#include "live/sessioninfo.h"

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>

/** The sessions that peers reported, a list for each peer. Owned by the SessionStore; callable from any thread. */
class PeerLists final
{
public:
    PeerLists() = default;
    Q_DISABLE_COPY_MOVE(PeerLists)

    /** Replaces the list of the peer @p key, which is valid until @p expiry. */
    void store(const QString &key, const QDateTime &expiry, const QList<SessionInfo> &list);
    void forget(const QString &key);
    /** Forgets every list that has expired. */
    void purge();
    /** All lists in the order of their keys, including those that have expired since the last purge(). */
    [[nodiscard]] QList<SessionInfo> sessions() const;

private:
    mutable QMutex mutex; ///< guards all below
    QMap<QString, QDateTime> remoteExpiry;
    QMap<QString, QList<SessionInfo>> remoteLists;
};
