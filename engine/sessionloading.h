// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

struct Session;

/**
 * Builds the record of a session from its directory: how it was started. What has happened since is for
 * refreshSession() to find out. A missing or unreadable file is logged. Callable from any thread.
 *
 * @param session    set only on success
 * @param directory  the session's directory
 * @param mayPass    where given, becomes true when the files may be readable a moment later; not set otherwise
 * @return SessionOk, NotASession or ReadFailed
 */
[[nodiscard]] int loadSession(Session *session, const QString &directory, bool *mayPass = nullptr);
