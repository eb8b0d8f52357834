// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/*
 * A session is identified by 32 hexadecimal digits, whose case is kept. Its directory inside the sessions
 * directory is "C-" followed by them. All functions are callable from any thread.
 */

[[nodiscard]] bool isValidSessionId(const QString &id);

/** The path of the session's directory inside @p root; the identifier is not checked. */
[[nodiscard]] QString sessionDirectory(const QString &root, const QString &id);

/** The identifier that the last component of @p path names; a null string when it names none. */
[[nodiscard]] QString sessionIdFromPath(const QString &path);

/**
 * Makes an unguessable identifier.
 * @param id  set only on success
 * @return false when the system's random device could not be read
 */
[[nodiscard]] bool newSessionId(QString *id);
