// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * Replaces the file at @p path by one with @p content that is private to the user. A reader sees either the old content
 * or the new one, never a part of it.
 *
 * @param error  set only on failure: one sentence that names the file
 */
[[nodiscard]] bool writePrivateFile(const QString &path, const QByteArray &content, QString *error);
