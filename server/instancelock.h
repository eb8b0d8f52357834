// SPDX-License-Identifier: MIT
#pragma once

#include "base/instancefiles.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>
#include <vector>

/**
 * A lock that one process of this user holds for an id, until it ends. It is a kernel lock on a file of this user in
 * each of several folders, some of which others can write to. A new file gets a random name if a stranger has taken the
 * usual one. While the lock is held, the files name this process (InstanceRecord). Used by one thread.
 */
class InstanceLock final
{
public:
    /** @param folders  those that exist are used, always in this order, which all processes must share */
    InstanceLock(const QString &id, const QList<QByteArray> &folders);
    ~InstanceLock();
    Q_DISABLE_COPY_MOVE(InstanceLock)

    /**
     * Takes the lock. Returns false if another process holds it in one of the folders. Returns true without a lock if
     * no folder can have a file, because a full disk must not keep the user out.
     */
    [[nodiscard]] bool take();

    /**
     * Makes the files look new, so that programs that remove old files from /tmp spare them. To be called once in a
     * while as long as the lock is held: there may be no /run/user/UID.
     */
    void refresh() const;

    /**
     * Makes each lock file again that was removed or moved, because new processes find only files that have their name.
     * To be called every few seconds as long as the lock is held. A file that another process has made and locked
     * meanwhile is left to it.
     */
    void restore();

private:
    class File;
    enum class Result { Taken, Elsewhere, Lost }; ///< Lost: a race with another start, so it is worth another round

    Result tryTake();
    [[nodiscard]] bool isHeldElsewhere() const;
    /**
     * Locks a file in one folder. Returns false if another process has it there or the file has gone meanwhile.
     * @param file  stays null if the folder can have no file
     */
    [[nodiscard]] bool lockIn(const QByteArray &folder, std::unique_ptr<File> *file) const;
    /** Removes the files that killed processes have left. */
    void removeStaleFiles() const;
    void release();
    [[nodiscard]] bool holds(const QByteArray &folder, const char *name) const;

    const InstanceFiles files;
    std::vector<std::unique_ptr<File>> held;
    QByteArray record; ///< what the files say about this process
};
