// SPDX-License-Identifier: MIT
#pragma once

#include <QFile>

/**
 * A file with an advisory exclusive lock on the whole of it, for processes that append to the same file and
 * lock it in the same way. One thread at a time may use it.
 */
class LockedFile : public QFile
{
    Q_OBJECT

public:
    using QFile::QFile;

    /**
     * Waits, without a limit, until the lock is ours. Does nothing on a closed file, and goes on without a lock
     * where the file system offers none: a log line is worth more than its lock.
     */
    void lockForWriting();
    /** Gives the lock back. Closing the file does so as well. */
    void unlock();
};
