// SPDX-License-Identifier: MIT
#pragma once

#include "base/logging.h"

#include <QObject>

class LockedFile;

/**
 * The logger that appends to a file, one flushed line per message, so that a crash loses nothing that was
 * logged. Created on the main thread; every function may be called from any thread.
 */
class FileLogging : public QObject, public Logging
{
    Q_OBJECT

public:
    explicit FileLogging(QObject *parent = nullptr);

    /**
     * Opens @p path for appending and logs there from now on.
     * @param error  set only on failure: the file's name and the reason
     */
    [[nodiscard]] bool open(const QString &path, QString *error);

    void write(int level, const QString &text) override;

public slots:
    /**
     * Closes the file and opens one of the same name, for a rotation that has moved the old one away. When that
     * fails, lines are lost until the next successful reopen.
     */
    void reopen();

private:
    [[nodiscard]] bool openForAppending();

    LockedFile *file; ///< a child of this object
};
