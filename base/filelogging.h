// SPDX-License-Identifier: MIT
#pragma once

#include "base/logging.h"

#include <QObject>

#include <limits>

class LockedFile;

/**
 * A logger that appends to a file. Each message is one line and is flushed at once, so that a crash loses none. Created
 * on the main thread; every function may be called from any thread.
 */
class FileLogging : public QObject, public Logging
{
    Q_OBJECT

public:
    explicit FileLogging(QObject *parent = nullptr);

    /**
     * Opens @p path for appending. From then on messages go there.
     * @param error  set only on failure: the file's name and the reason
     */
    [[nodiscard]] bool open(const QString &path, QString *error);

    /**
     * Rotates the file when it has reached this size: it becomes "NAME.old", which replaces the one before, and a new
     * one is begun. By default it grows without end. Set before the first line.
     */
    void setMaxBytes(qint64 bytes) { maxBytes = bytes; }

    void write(int level, const QString &text) override;

public slots:
    /**
     * Closes the file and opens the path again, after log rotation has moved the old file away. If that fails, lines
     * are lost until the next successful reopen.
     */
    void reopen();

private:
    [[nodiscard]] bool openForAppending();
    void lockCurrentFile();
    [[nodiscard]] bool isFull() const;
    [[nodiscard]] bool rotate();

    LockedFile *file; ///< a child of this object
    qint64 maxBytes = std::numeric_limits<qint64>::max();
};
