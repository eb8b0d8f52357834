// SPDX-License-Identifier: MIT
#pragma once

#include "client/reach/privatedirectory.h"
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
     * Whether it is known to take a path as the address of a local socket. Of a viewer in ZARVO_VIEWER, or of one with
     * a name that several programs have, nothing is known.
     */
    [[nodiscard]] bool knowsLocalSockets() const { return isTigerVnc; }

    /**
     * Shows a session on a port of this host until the user closes the viewer. The viewer ends if this program ends.
     *
     * @param password  passed to the viewer in a private file; empty: none is needed
     * @param failure   set only on failure: NoViewer
     */
    [[nodiscard]] bool showPort(quint16 port, const QString &password, Failure *failure);

    /** The same for a local socket that asks for no password. The viewer starts in the directory of the socket. */
    [[nodiscard]] bool showSocket(const PrivateDirectory &directory, const QString &name, Failure *failure);

private:
    /** The descriptors that the viewer's process uses; -1: none. */
    struct Inherited
    {
        int password = -1;  ///< stays open
        int directory = -1; ///< where it starts
    };

    [[nodiscard]] bool run(const QStringList &arguments, Inherited inherited, Failure *failure);
    static void prepareChild(Inherited inherited);

    QStringList command;
    bool isTigerVnc = false;
};
