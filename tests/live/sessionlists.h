// SPDX-License-Identifier: MIT
#pragma once

#include "live/sessioninfo.h"

#include <QDateTime>
#include <QList>
#include <QStringList>

[[nodiscard]] inline QStringList idsOf(const QList<SessionInfo> &list)
{
    QStringList ids;
    for (const SessionInfo &info : list) {
        ids.append(info.id);
    }
    return ids;
}

[[nodiscard]] inline QList<SessionInfo> listOf(const QStringList &ids)
{
    QList<SessionInfo> list;
    for (const QString &id : ids) {
        SessionInfo info;
        info.id = id;
        list.append(info);
    }
    return list;
}

/** An expiry in the future, and one in the past. */
[[nodiscard]] inline QDateTime later()
{
    return QDateTime::currentDateTime().addSecs(3600);
}
[[nodiscard]] inline QDateTime earlier()
{
    return QDateTime::currentDateTime().addSecs(-1);
}
