// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * A file with a password in the form that VNC viewers read, which has no name on any disk and goes with the last
 * process that holds it. A child process can read it once the descriptor is not close-on-exec there.
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

    /** What a process that inherited the descriptor opens. */
    [[nodiscard]] QString path() const;

private:
    int file = -1;
};

/** The eight bytes that viewers read: the password scrambled with a key that everybody knows. Empty on failure. */
[[nodiscard]] QByteArray scrambledVncPassword(const QString &password);
