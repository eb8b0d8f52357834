// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * Reads a file into memory, at most @p maxSize bytes of it: what lies behind is cut off silently, for the
 * bound protects the process and is no property of the file.
 *
 * @param maxSize  in bytes
 * @param data     set only on success
 * @param error    set only on failure: one sentence with the file's name and the reason
 * @return true when the file could be opened and read. Callable from any thread.
 */
[[nodiscard]] bool readFile(const QString &path, int maxSize, QByteArray *data, QString *error);

enum class FileReading { Done, Missing, Failed };

/**
 * The same, and Missing when there was no file to open. Whether it is there is not asked beforehand or afterwards: a
 * file that somebody else writes and removes may come and go between two looks. @p error is set for Missing as well.
 */
[[nodiscard]] FileReading readFileIfThere(const QString &path, int maxSize, QByteArray *data, QString *error);

/**
 * Whether there is something at @p path that is neither a file nor a directory: a pipe or a device, which would let who
 * opens or reads it wait for ever. Callable from any thread.
 */
[[nodiscard]] bool isSpecialFile(const QString &path);

/** The error of a file that is not opened because isSpecialFile() or isPipe() holds. Callable from any thread. */
[[nodiscard]] QString notRegularFileError(const QString &path);

/** Whether there is a named pipe at @p path, or a link to one. Callable from any thread. */
[[nodiscard]] bool isPipe(const QString &path);
