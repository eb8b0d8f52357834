// SPDX-License-Identifier: MIT
#pragma once

#include "contract/sessiondirectory.h"

#include <QString>

/*
 * The small files that the server shares with agents and other programs: one value each, in UTF-8, without a
 * line end. All functions are callable from any thread; the caller logs the error.
 */

/**
 * Writes one value into a file, which is private to the user before the value is in it.
 * @param error  set only on failure: the file's name and the reason
 */
[[nodiscard]] bool writeNumberFile(const QString &path, qint64 number, QString *error);
[[nodiscard]] bool writeTextFile(const QString &path, const QString &text, QString *error);

/**
 * Reads one value from the first 1 MiB of a file. Numbers are cut to the type's size. A text is the first word.
 * @param value    set only on success
 * @param error    set only on failure: the file's name and the reason
 * @param mayPass  where given, becomes true when isPassing() holds of the reason; not set otherwise
 */
[[nodiscard]] bool readDisplayFile(const QString &path, quint16 *value, QString *error, bool *mayPass = nullptr);
[[nodiscard]] bool readNumberFile(const QString &path, qint32 *value, QString *error, bool *mayPass = nullptr);
[[nodiscard]] bool readWordFile(const QString &path, QString *value, QString *error, bool *mayPass = nullptr);

/**
 * Whether it is the system that lacks something at the moment, and not the file.
 * @param reason  as of qt_error_string()
 */
[[nodiscard]] bool isPassing(const QString &reason);
