// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Removes a session directory and the files in it. Directories inside it are never touched, so that it
 * survives when it holds one; nor is what a link at @p path points to. Callable from any thread.
 *
 * @param error  set only on failure: what could not be removed; the rest is then left
 */
[[nodiscard]] bool removeSessionDirectory(const QString &path, QString &error);
