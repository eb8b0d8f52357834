// SPDX-License-Identifier: MIT
#pragma once

#include <QFileSystemWatcher>
#include <QObject>
#include <QTimer>

#include <chrono>

/**
 * Notices that a directory was removed. A renamed directory still exists, and can be moved back.
 * Owned by the agent, lives on the main thread.
 */
class DirectoryWatcher final : public QObject
{
    Q_OBJECT

public:
    /** @param fallback  how often to check, because the kernel does not report removals by other hosts */
    explicit DirectoryWatcher(std::chrono::milliseconds fallback = std::chrono::seconds(10), QObject *parent = nullptr);
    ~DirectoryWatcher() override;

    /**
     * Begins to watch the directory at @p path. Called once. removed() may follow.
     *
     * @param error  set only on failure: one sentence that names the directory
     */
    [[nodiscard]] bool watch(const QString &path, QString *error);

signals:
    /** The directory is gone. Emitted at most once. */
    void removed();

private:
    void check();

    int descriptor = -1;
    QFileSystemWatcher parentWatcher;
    QTimer timer;
};
