// SPDX-License-Identifier: MIT
#pragma once

#include "client/connectionoffer.h"
#include "client/exitcode.h"

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
     * Shows a session until its user closes the viewer, which ends with this program at the latest. The password
     * gets to it through a private file.
     * @param failure  set only on failure: NoViewer
     */
    [[nodiscard]] bool run(const ConnectionOffer &offer, Failure *failure);

private:
    QStringList command;
};
