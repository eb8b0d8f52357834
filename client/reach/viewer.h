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
     * Finds the viewer: the command in ZARVO_VIEWER, else a known program on the search path.
     * @param failure  set only on failure: NoViewer
     */
    [[nodiscard]] bool find(Failure *failure);

    /** The command that was found, to be shown to the user. */
    [[nodiscard]] QString name() const { return command.join(u' '); }

    /**
     * Shows a session until the user closes the viewer. The viewer ends if this program ends.
     *
     * @param port      of this host, where the session can be reached
     * @param password  passed to the viewer in a private file
     * @param failure   set only on failure: NoViewer
     */
    [[nodiscard]] bool run(quint16 port, const QString &password, Failure *failure);

private:
    QStringList command;
};
