// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/exitcode.h"

#include <QString>
#include <QStringList>

/** A VNC viewer as a child process. Used on the main thread. */
class Viewer
{
public:
    /**
     * Looks for the viewer: the command in ZARVO_VIEWER, else the known ones on the search path.
     * @param failure  set only on failure: NoViewer
     */
    [[nodiscard]] bool find(Failure *failure);

    /** What was found, for people. */
    [[nodiscard]] QString name() const { return command.join(u' '); }

    /**
     * Shows a session until its user closes the viewer, which ends with this program at the latest.
     *
     * @param port      where the session is to be had on this host
     * @param password  gets to the viewer through a private file
     * @param failure   set only on failure: NoViewer
     */
    [[nodiscard]] bool run(quint16 port, const QString &password, Failure *failure);

private:
    QStringList command;
};
