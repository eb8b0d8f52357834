// SPDX-License-Identifier: MIT
#pragma once

#include "base/settings.h"
#include "client/server/rpcclient.h"
#include "client/server/serverconnector.h"
#include "client/server/serverfiles.h"
#include "client/sessions/sessionentry.h"
#include "client/terminal/console.h"
#include "client/terminal/exitcode.h"

/**
 * What every verb works with: the console, the settings, and the server. It connects when a verb asks for it. One per
 * run of the program; used on the main thread.
 */
class ClientContext
{
public:
    ClientContext(Console &console, const Settings &settings);

    Console &console;
    const Settings settings;
    const ServerFiles files;
    RpcClient client;
    ServerStatus server; ///< set by connectToServer(): the server, or why there is no connection

    /** Connects unless it is connected; @p start says whether it may start a server first. */
    [[nodiscard]] bool connectToServer(ServerConnector::Start start, Failure *failure);

    /** Lists the sessions of the connected server itself. */
    [[nodiscard]] bool listLocal(SessionList *sessions, Failure *failure);

    /** Lists these and the sessions that other servers of the user have reported. */
    [[nodiscard]] bool listAll(SessionList *sessions, Failure *failure);

    /**
     * Finds a session of the connected server itself.
     * @param failure  for a session on another host: WrongState, with the name of that host
     */
    [[nodiscard]] bool findLocal(const QString &target, SessionEntry *found, Failure *failure);

    /** Calls a method that takes the id of a session. */
    [[nodiscard]] bool callWithId(const QString &method, const QString &id, Json::Value *result, Failure *failure);

private:
    bool list(const QString &method, SessionList *sessions, Failure *failure);
};

/** The texts as a JSON array: the form of a request's parameters. */
[[nodiscard]] Json::Value jsonTexts(const QStringList &texts);

/** The name of this host, to be shown to the user. */
[[nodiscard]] QString localHostName();
