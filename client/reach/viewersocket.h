// SPDX-License-Identifier: MIT
#pragma once

#include "client/reach/privatedirectory.h"
#include "client/terminal/exitcode.h"

#include <QString>

/**
 * The local socket of a session of this host where its agent lets the user's own viewers in without a password. Used
 * on the main thread.
 */
class ViewerSocket
{
public:
    /**
     * @param directory  the session's
     * @param failure    set only on failure: SessionFailed if the directory cannot be used
     */
    [[nodiscard]] bool open(const QString &directory, Failure *failure);

    /** Whether an agent of this user listens there. Other agents may have no such socket. */
    [[nodiscard]] bool answers() const;

    /**
     * Whether the agent has viewers. It is asked now, because the server's list is some seconds old.
     * @param listed  the answer if the agent gives none
     */
    [[nodiscard]] bool hasViewers(bool listed) const;

    /**
     * Connects as a viewer.
     * @param connection  set only on success: a non-blocking descriptor, which the caller owns
     * @param failure     set only on failure: SessionFailed
     */
    [[nodiscard]] bool connect(int *connection, Failure *failure) const;

    /** Where the socket is, for a viewer that starts there. */
    [[nodiscard]] const PrivateDirectory &directory() const { return folder; }
    [[nodiscard]] QString name() const;

private:
    PrivateDirectory folder;
    quint16 display = 0;
};
