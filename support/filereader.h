// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * Reads the first @p maxSize bytes of a file. A longer file is not an error, because the limit only protects the
 * memory of the process. Callable from any thread.
 *
 * @param maxSize  in bytes
 * @param data     set only on success
 * @param error    set only on failure: one sentence with the file's name and the reason
 * @return true when the file could be opened and read
 */
[[nodiscard]] bool readFile(const QString &path, int maxSize, QByteArray *data, QString *error);

enum class FileReading { Done, Missing, Failed };

/**
 * Like readFile(), but returns Missing when there is no file. The open call itself tells this: a separate check would
 * be a race with the process that writes and removes the file. @p error is set for Missing as well.
 */
[[nodiscard]] FileReading readFileIfThere(const QString &path, int maxSize, QByteArray *data, QString *error);

/**
 * Whether @p path is neither a regular file nor a directory, but a pipe or a device for example. Opening or reading one
 * could block for ever. False if nothing is there. Callable from any thread.
 */
[[nodiscard]] bool isSpecialFile(const QString &path);

/** The error for a file that is not opened because of isSpecialFile() or isPipe(). Callable from any thread. */
[[nodiscard]] QString notRegularFileError(const QString &path);

/** Whether @p path is a named pipe, or a symlink to one. Callable from any thread. */
[[nodiscard]] bool isPipe(const QString &path);
