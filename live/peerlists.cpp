// SPDX-License-Identifier: MIT
#include "live/peerlists.h"

#include <QMutexLocker>

void PeerLists::store(const QString &key, const QDateTime &expiry, const QList<SessionInfo> &list)
{
    const QMutexLocker locker(&mutex);
    remoteExpiry[key] = expiry;
    remoteLists[key] = list;
}

void PeerLists::forget(const QString &key)
{
    const QMutexLocker locker(&mutex);
    remoteExpiry.remove(key);
    remoteLists.remove(key);
}

void PeerLists::purge()
{
    const QMutexLocker locker(&mutex);
    const QDateTime now = QDateTime::currentDateTime();
    for (auto expiry = remoteExpiry.begin(); expiry != remoteExpiry.end();) {
        if (expiry.value() < now) {
            remoteLists.remove(expiry.key());
            expiry = remoteExpiry.erase(expiry);
        } else {
            ++expiry;
        }
    }
}

QList<SessionInfo> PeerLists::sessions() const
{
    const QMutexLocker locker(&mutex);
    QList<SessionInfo> all;
    for (const QList<SessionInfo> &list : remoteLists) {
        all.append(list);
    }
    return all;
}
