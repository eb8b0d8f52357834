// SPDX-License-Identifier: MIT
#pragma once

#include "client/server/rpcclient.h"
#include "client/server/serverfiles.h"
#include "client/terminal/exitcode.h"

#include <QString>

/**
 * Connects to the user's server, and starts it first if none runs. Many programs may do so at the same time. Used on
 * the main thread.
 */
class ServerConnector
{
public:
    enum class Start { Allowed, Forbidden };

    explicit ServerConnector(const ServerFiles &files);

    /**
     * Blocks until it has connected or given up; waits at most a minute for a server that starts.
     *
     * @param failure  set only on failure: NoServer, with the server's messages if it does not start; TimedOut; or
     *                 CertificateRefused
     */
    [[nodiscard]] bool connect(RpcClient *client, Start start, Failure *failure);

    /** What the files showed at the last attempt to connect. */
    [[nodiscard]] const ServerStatus &status() const { return last; }

private:
    enum class Attempt { Connected, NotYet, Failed };

    Attempt attempt(RpcClient *client, Failure *failure);
    Attempt attemptOnce(RpcClient *client, Failure *failure);
    bool readCredentials(Credentials *credentials, Failure *failure) const;
    bool connectToStarting(RpcClient *client, Start start, Failure *failure);

    ServerFiles files;
    ServerStatus last; ///< at the last attempt; the detail says why it failed
};
