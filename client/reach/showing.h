// SPDX-License-Identifier: MIT
#pragma once

#include "client/reach/remotehost.h"
#include "client/reach/viewer.h"
#include "client/reach/viewersocket.h"
#include "client/sessions/connectionoffer.h"

#include <QString>

/*
 * Ways to show a session with a viewer until the user closes it. Others on this host cannot get into any of them. Used
 * on the main thread. The failures are those of the viewer, the socket and the remote host.
 */

/** Shows a session of this host through its agent's socket; no password is needed. */
[[nodiscard]] bool showLocally(Viewer &viewer, const ViewerSocket &socket, Failure *failure);

/**
 * Shows a new session of this host, in the directory given, to the one who has started it: through the agent's socket
 * if it has one, else with the offer's password.
 */
[[nodiscard]] bool showStarted(Viewer &viewer, const QString &directory, const ConnectionOffer &offer,
                               Failure *failure);

/** Shows a session of another host through ssh. */
[[nodiscard]] bool showRemotely(Viewer &viewer, const RemoteHost &host, const QString &id, Failure *failure);
