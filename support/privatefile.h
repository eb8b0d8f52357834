// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * Replaces the file at @p path by one that holds @p content and is private to the user. The file appears whole: a
 * reader sees the old content or the new one.
 *
 * @param error  set only on failure: one sentence that names the file
 */
[[nodiscard]] bool writePrivateFile(const QString &path, const QByteArray &content, QString *error);
