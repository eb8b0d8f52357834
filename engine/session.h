// SPDX-License-Identifier: MIT
#pragma once

#include "contract/sessiondirectory.h"

#include <QDateTime>
#include <QSize>
#include <QString>
#include <QStringList>

/**
 * What the server knows of one local session. A value without a lock: a thread that works on it holds its id busy in
 * the registry, or has a record of its own.
 */
struct Session
{
    QString directory;        ///< absolute; empty for a record that is not initialised
    quint16 display = 0;      ///< the X display number
    qint32 monitorPid = 0;    ///< the process started from "start-agent"
    QString windowMode;       ///< "rootless" or "desktop"
    QString name;             ///< as given at the start
    QDateTime logStamp;       ///< last modification of the agent's log when it was last read
    bool broken = false;      ///< the last refresh failed
    QDateTime started;        ///< when the agent became ready; null until then
    QDateTime lastConnect;    ///< null until a client came
    QDateTime lastDisconnect; ///< null until a client went
    qint32 clients = 0;       ///< how many are connected, according to the agent
    QStringList passwords;    ///< those that the agent accepts now, the newest last
    QSize screenSize;         ///< in pixels; (-1, -1) when unknown
    bool exited = false;      ///< the agent's process is gone
    qint32 exitCode = -1;     ///< how the agent ended; -1 until known
};

/** The moment that stands for "never read" in Session::logStamp. */
[[nodiscard]] inline QDateTime epoch()
{
    return QDateTime::fromMSecsSinceEpoch(0);
}
