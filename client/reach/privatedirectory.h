// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * An open directory that only this user can change. Sockets in it are reached through the descriptor: the path of a
 * socket may have 107 bytes, which the paths of these directories exceed, and nobody can put another directory in its
 * place. Used on the main thread.
 */
class PrivateDirectory
{
public:
    PrivateDirectory() = default;
    ~PrivateDirectory();
    Q_DISABLE_COPY_MOVE(PrivateDirectory)

    /** @param error  set only on failure: one sentence, also if others can change the directory */
    [[nodiscard]] bool open(const QString &path, QString *error);

    /** For fchdir(); -1 before open(). Close-on-exec. */
    [[nodiscard]] int descriptor() const { return directory; }

    /** A short path of a file in it, valid in this process only. */
    [[nodiscard]] QString pathOf(const QString &name) const;

private:
    int directory = -1;
};
