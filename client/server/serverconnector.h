// SPDX-License-Identifier: MIT
#pragma once

#include "client/server/rpcclient.h"
#include "client/server/serverfiles.h"
#include "client/terminal/exitcode.h"

#include <QString>

/**
 * Gets a connection to the user's server, which is started first when none runs. Any number of programs may do
 * so at the same moment. Used on the main thread.
 */
class ServerConnector
{
public:
    enum class Start { Allowed, Forbidden };

    explicit ServerConnector(const ServerFiles &files);

    /**
     * @param failure  set only on failure: NoServer with what the server said about its start, or
     *                 CertificateRefused
     */
    [[nodiscard]] bool connect(RpcClient *client, Start start, Failure *failure);

    /** What the files told when the connection was made, or when it was given up. */
    [[nodiscard]] const ServerStatus &status() const { return last; }

private:
    enum class Attempt { Connected, NotYet, Failed };

    Attempt attempt(RpcClient *client, Failure *failure);
    Attempt attemptOnce(RpcClient *client, Failure *failure);
    bool readCredentials(Credentials *credentials, Failure *failure) const;
    bool connectToStarting(RpcClient *client, Start start, Failure *failure);

    ServerFiles files;
    ServerStatus last; ///< what the last attempt saw; the detail says why it brought no connection
};
