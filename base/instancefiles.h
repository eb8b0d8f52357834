// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <functional>

/** Names the lock of the one server that may run under this USER. Servers and clients must agree on it. */
[[nodiscard]] QString serverInstanceId();

/**
 * The lock files of a program that runs once for an id: files of this user in each of several folders, some of which
 * others can write to.
 *
 * Strangers may put anything under any name there. So a name means nothing: every file of ours whose name begins with
 * the prefix counts, and whether a process has locked it. A value; callable from any thread.
 */
class InstanceFiles final
{
public:
    enum class Locking { Locked, Held, Failed };

    /** @param folders  those that exist are used, always in this order, which all processes must share */
    InstanceFiles(const QString &id, const QList<QByteArray> &folders);

    /** Where the locks of this user are: /run/user/UID, if it is safe, the temporary directory and /tmp. */
    [[nodiscard]] static QList<QByteArray> standardFolders();

    [[nodiscard]] const QByteArray &prefix() const { return namePrefix; }
    [[nodiscard]] const QList<QByteArray> &folders() const { return places; }

    /** Calls @p use with the name of each of our own files that begins with the prefix, until it returns false. */
    void forEach(const QByteArray &folder, const std::function<bool(const char *)> &use) const;

    /**
     * Opens a lock file of ours. -1 if it is missing or somebody else has put it there. The caller closes it.
     * @param create  0, or O_CREAT with or without O_EXCL
     */
    [[nodiscard]] static int open(const QByteArray &path, int create);

    /**
     * @param kind  LOCK_EX, or LOCK_SH to find out whether another process holds the file. Processes that only look do
     *              not disturb each other then
     * @return Failed also if @p path names another file now: our lock says nothing about other processes then
     */
    [[nodiscard]] static Locking lock(int descriptor, const QByteArray &path, int kind);

    /** Whether the path still names the open file. Somebody may have removed or moved it. */
    [[nodiscard]] static bool isAt(int descriptor, const QByteArray &path);

    /**
     * False if the file has several hard links. A stranger may have made one, where fs.protected_hardlinks is 0: of a
     * lock file, or under our prefix of any other file of the user. So only a file with one name may be written to.
     */
    [[nodiscard]] static bool hasOneName(int descriptor);

private:
    QByteArray namePrefix;
    QList<QByteArray> places;
};
