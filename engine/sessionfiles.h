// SPDX-License-Identifier: MIT
#pragma once

#include "contract/sessiondirectory.h"

#include <QString>

/*
 * The small files that the server shares with agents and other programs: one value each, in UTF-8, without a newline.
 * All functions are callable from any thread; the caller logs the error.
 */

/**
 * Writes one value into a file. The file is private to the user before the value is in it.
 * @param error  set only on failure: the file's name and the reason
 */
[[nodiscard]] bool writeNumberFile(const QString &path, qint64 number, QString *error);
[[nodiscard]] bool writeTextFile(const QString &path, const QString &text, QString *error);

/**
 * Reads one value from the first 1 MiB of a file. Numbers are cut to the type's size. A text is the first word.
 * @param value             set only on success
 * @param error             set only on failure: the file's name and the reason
 * @param isTransientError  if given, set to true when the reason is transient, else left as it is
 */
[[nodiscard]] bool readDisplayFile(const QString &path, quint16 *value, QString *error,
                                   bool *isTransientError = nullptr);
[[nodiscard]] bool readNumberFile(const QString &path, qint32 *value, QString *error, bool *isTransientError = nullptr);
[[nodiscard]] bool readWordFile(const QString &path, QString *value, QString *error, bool *isTransientError = nullptr);

/**
 * Whether a retry may succeed, because the system lacks descriptors or memory, or failed to read.
 * @param reason  a text of qt_error_string()
 */
[[nodiscard]] bool isTransient(const QString &reason);
