// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class DisplayReservation;
struct Session;

/**
 * Turns a session directory into a running session: picks a display, writes the files that describe the
 * session, makes its X authority and starts the agent, detached. Returns once the agent's process has
 * started; waitForStarted() tells when it is ready. Failures are logged, and nothing is undone on failure.
 * Blocks for seconds in bad cases; callable from any thread but never from the main one.
 *
 * @param session     set only on success
 * @param directory   created, with its parents, when it does not exist
 * @param base,limit  the display numbers to try, see findOpenDisplay()
 * @param geometry    handed to the agent as it is; "rootless" makes a rootless session, anything else a desktop
 * @param name        the session's name
 * @param reservation  where given, keeps the display from other starts, until the caller ends it; for good
 *                     when an agent was started that cannot be kept track of
 */
[[nodiscard]] int startSession(Session *session, const QString &directory, quint16 base, quint16 limit,
                               const QString &geometry, const QString &name, DisplayReservation *reservation = nullptr);

/**
 * Starts the application of a session, detached and unsupervised.
 *
 * @param command  one command line, handed on as one argument
 * @return SessionOk, NotInitialized, WriteFailed or ApplicationFailed. Callable from any thread.
 */
[[nodiscard]] int startApplication(const Session &session, const QString &command);
