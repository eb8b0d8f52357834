// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/connectionoffer.h"
#include "client/terminal/exitcode.h"

#include <QString>
#include <QStringList>

#include <memory>

/**
 * Another host of the user, reached with "ssh" or with the command in ZARVO_SSH. That host may be hostile, so ssh
 * forwards nothing to it: no agent, no display, no port, no Kerberos ticket. Used on the main thread.
 */
class RemoteHost
{
public:
    /** The host that a session's location names ("ssh://user@host:22/…"); null if it names none. */
    [[nodiscard]] static std::unique_ptr<RemoteHost> fromLocation(const QString &location);

    [[nodiscard]] QString hostName() const { return host; }

    /**
     * Runs zarvoctl on that host, which makes an offer for a session there.
     * @param failure  set only on failure: with the exit code of that zarvoctl, or NoServer if ssh fails
     */
    [[nodiscard]] bool requestOffer(const QString &id, ConnectionOffer *offer, Failure *failure) const;

    /**
     * The command whose standard input and output are the stream of a session there.
     * @param failure  set only on failure: NoSuchSession if @p id is none
     */
    [[nodiscard]] bool pipeCommand(const QString &id, QStringList *command, Failure *failure) const;

    /** What it means that a command there has ended with this exit code and has written this to standard error. */
    [[nodiscard]] Failure explain(int exitCode, const QString &errors) const;

private:
    RemoteHost() = default;
    [[nodiscard]] QStringList sshTo(const QStringList &remoteCommand) const;

    QString user;
    QString host;
    int port = -1;
};
