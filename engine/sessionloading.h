// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

struct Session;

/**
 * Builds the record of a session from its directory: how it was started. refreshSession() then learns what has happened
 * since. A missing or unreadable file is logged. Callable from any thread.
 *
 * @param session           set only on success
 * @param directory         the session's directory
 * @param isTransientError  if given, set to true when the error is transient, else left as it is
 * @return SessionOk, NotASession or ReadFailed
 */
[[nodiscard]] int loadSession(Session *session, const QString &directory, bool *isTransientError = nullptr);
