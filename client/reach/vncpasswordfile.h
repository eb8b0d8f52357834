// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * A file with a password in the form that VNC viewers read. It has no name and is on no disk, and it exists until the
 * last process closes it. A child process can read it after clearing close-on-exec on the descriptor.
 */
class VncPasswordFile
{
public:
    VncPasswordFile() = default;
    ~VncPasswordFile();
    Q_DISABLE_COPY_MOVE(VncPasswordFile)

    /** @param error  set only on failure: one sentence, without the password */
    [[nodiscard]] bool create(const QString &password, QString *error);

    [[nodiscard]] int descriptor() const { return file; }

    /** The path by which a process that inherited the descriptor opens the file. */
    [[nodiscard]] QString path() const;

private:
    int file = -1;
};

/** The eight bytes that viewers read: the password, encrypted with a key that is public. Empty on failure. */
[[nodiscard]] QByteArray scrambledVncPassword(const QString &password);
