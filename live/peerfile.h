// SPDX-License-Identifier: MIT
#pragma once

#include "live/sessioninfo.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

/**
 * The file that tells clients of this user which peer has reported which session. A peer may claim that its sessions
 * are on a third host, and the list of sessions does not show who said so. The file exists while there is a list. Owned
 * by the PeerLists, which serialise the calls.
 */
class PeerFile final
{
public:
    /** Removes what a server that was killed has left at @p path. Does not remove the file at the end. */
    explicit PeerFile(const QString &path);

    /** Replaces the content in one step. @param lists  what each peer has reported, by "address:port" */
    void write(const QMap<QString, QList<SessionInfo>> &lists);

private:
    const QString path;
    QByteArray written;
};
