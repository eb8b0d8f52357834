// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Removes a session directory and the files in it. Directories inside it are never touched, so the directory stays when
 * it has one. A symlink at @p path is not followed. Callable from any thread.
 *
 * @param error  set only on failure: what could not be removed; the rest is left
 */
[[nodiscard]] bool removeSessionDirectory(const QString &path, QString &error);
