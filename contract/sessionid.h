// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>
#include <QString>

/*
 * A session's id is 32 hexadecimal digits in the case that the client chose. Its directory, inside the sessions
 * directory, is named after it. All functions are callable from any thread.
 */

/** The directory's name is this and the id. */
inline constexpr QLatin1StringView kSessionDirectoryPrefix("C-");

[[nodiscard]] bool isValidSessionId(const QString &id);

/** The path of the session's directory inside @p root; the id is not checked. */
[[nodiscard]] QString sessionDirectory(const QString &root, const QString &id);

/** The id in the last component of @p path, up to its first full stop; a null string when there is none. */
[[nodiscard]] QString sessionIdFromPath(const QString &path);

/**
 * Makes an id that nobody can guess.
 *
 * @param id     set only on success
 * @param error  set only on failure, when the system's random device cannot be read; may be null
 */
[[nodiscard]] bool newSessionId(QString *id, QString *error = nullptr);
