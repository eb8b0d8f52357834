// SPDX-License-Identifier: MIT
#include "live/peerlists.h"

#include <QMutexLocker>

void PeerLists::keepFile(const QString &path)
{
    const QMutexLocker locker(&fileMutex);
    file = std::make_unique<PeerFile>(path);
}

void PeerLists::store(const QString &key, const QDateTime &expiry, const QList<SessionInfo> &list)
{
    {
        const QMutexLocker locker(&mutex);
        remoteExpiry[key] = expiry;
        remoteLists[key] = list;
    }
    saveFile();
}

void PeerLists::forget(const QString &key)
{
    {
        const QMutexLocker locker(&mutex);
        if (remoteExpiry.remove(key) + remoteLists.remove(key) == 0) {
            return;
        }
    }
    saveFile();
}

void PeerLists::purge()
{
    bool hasChanged = false;
    {
        const QMutexLocker locker(&mutex);
        const QDateTime now = QDateTime::currentDateTime();
        for (auto expiry = remoteExpiry.begin(); expiry != remoteExpiry.end();) {
            if (expiry.value() < now) {
                remoteLists.remove(expiry.key());
                expiry = remoteExpiry.erase(expiry);
                hasChanged = true;
            } else {
                ++expiry;
            }
        }
    }
    if (hasChanged) {
        saveFile(); // not each time, because the main thread calls this
    }
}

void PeerLists::saveFile()
{
    const QMutexLocker fileLocker(&fileMutex);
    if (!file) {
        return;
    }
    QMutexLocker locker(&mutex);
    const QMap<QString, QList<SessionInfo>> lists = remoteLists;
    locker.unlock();
    file->write(lists);
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
