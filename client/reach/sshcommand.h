// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/*
 * How we run a command on another host: with "ssh" or with the command in ZARVO_SSH. Callable from any thread.
 */

/** Exit code of ssh when ssh itself has failed. */
inline constexpr int kSshFailed = 255;

/** Exit code of a shell that does not find the command. */
inline constexpr int kCommandNotFound = 127;

/**
 * The command line that runs @p remoteCommand on a host, which may be hostile. So ssh forwards nothing to it, whatever
 * the user's settings say: no agent, no display, no port, no Kerberos ticket.
 *
 * @param options  further options of ssh, for example the port
 * @param host     must be no option and hold no shell syntax
 */
[[nodiscard]] QStringList guardedSsh(const QStringList &options, const QString &host, const QStringList &remoteCommand);

/** The last line of what a command has written to standard error; usually it names the reason. */
[[nodiscard]] QString lastLine(const QString &text);
