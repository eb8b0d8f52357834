// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class DisplayReservation;
struct Session;

/**
 * Starts a session in a directory: picks a display, writes the files that describe the session, creates its X authority
 * and starts the agent, detached. Returns once the agent's process runs; waitForStarted() waits until it is ready.
 * Failures are logged, and nothing is undone on failure. Blocks for seconds in bad cases; callable from any thread
 * except the main thread.
 *
 * @param session      set only on success
 * @param directory    created, with its parents, when it does not exist
 * @param base,limit   the display numbers to try, see findOpenDisplay()
 * @param geometry     passed to the agent unchanged; "rootless" makes a rootless session, anything else a desktop
 * @param name         the session's name
 * @param reservation  if given, keeps other starts from the display until the caller releases it, and until the server
 *                     ends when the agent's pid cannot be written down
 */
[[nodiscard]] int startSession(Session *session, const QString &directory, quint16 base, quint16 limit,
                               const QString &geometry, const QString &name, DisplayReservation *reservation = nullptr);

/**
 * Starts the application of a session, detached and unsupervised.
 *
 * @param command  a command line, passed on as one argument
 * @return SessionOk, NotInitialized, WriteFailed or ApplicationFailed. Callable from any thread.
 */
[[nodiscard]] int startApplication(const Session &session, const QString &command);
