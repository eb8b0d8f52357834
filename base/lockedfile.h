// SPDX-License-Identifier: MIT
#pragma once

#include <QFile>

/**
 * A file with an advisory exclusive lock, so that several processes can append to it. All of them must take the lock in
 * the same way. One thread at a time may use it.
 */
class LockedFile : public QFile
{
    Q_OBJECT

public:
    using QFile::QFile;

    /**
     * Waits for the lock, without a timeout. Does nothing if the file is closed. Goes on without a lock if the file
     * system has none, because losing the log line would be worse.
     */
    void lockForWriting();
    /** Releases the lock. Closing the file does so as well. */
    void unlock();

    /**
     * Goes on with the file that has the name now, which is made if there is none, and without a lock. Keeps the file
     * that is open, and returns false, if that fails. Unlike close() and open() it may be called from any thread.
     */
    [[nodiscard]] bool switchToNewFile();
};
