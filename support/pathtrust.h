// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

#include <sys/stat.h>
#include <sys/types.h>

/*
 * Whether nobody but this user and root can have written or replaced a file. Every folder from the root on counts, and
 * those that a symlink leads through as well: whoever can write to one of them can put another file in place. Callable
 * from any thread.
 */

/** The user whose files are judged. */
struct PathUser
{
    uid_t id = 0;
    /**
     * The user's primary group, if nobody else is in it: many systems let users create group-writable files, because
     * each has a group of his own. It has the user's name and lists no other member. A group of another name may be
     * the primary group of all users, which no list of its members shows.
     */
    std::optional<gid_t> privateGroup;
};

/** What one file or folder on the way allows others to do. */
enum class PathPart {
    Trusted,
    Shared,       ///< a sticky folder: others can add entries, but neither replace nor remove ours
    ForeignOwner, ///< its owner can change it
    Writable,     ///< others can change it
};

/**
 * Judges owner and mode of one file or folder.
 * @param hasAccessList  whether an access list lets further users in; its mask then stands in the mode's group bits
 */
[[nodiscard]] PathPart judgePathPart(const struct stat &status, bool hasAccessList, const PathUser &user);

enum class PathTrust {
    Trusted,
    Missing,   ///< nothing is there, and what is above it is trusted
    Untrusted, ///< others can write or replace it
    Failed,    ///< the system refused to look at it
};

/** What followTrustedPath() found. */
struct FoundPath
{
    QByteArray path;               ///< without symlinks
    struct stat status = {};       ///< set if the file is there
    bool isInSharedFolder = false; ///< others can create files beside it, in a sticky folder
};

/**
 * Follows the path from the root on, and judges each folder, symlink and the file itself before it goes on. If all are
 * trusted, the file can be opened by its path afterwards: only this user and root can exchange a part meanwhile.
 *
 * @param error  set unless it is Trusted: one sentence that names the file and the reason
 */
[[nodiscard]] PathTrust followTrustedPath(const QString &path, FoundPath *found, QString *error);
