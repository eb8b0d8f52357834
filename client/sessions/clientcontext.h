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
 * What every verb works with: the console, the settings, and the server, to which a connection is made when a
 * verb asks for it. One per run of the program; used on the main thread.
 */
class ClientContext
{
public:
    ClientContext(Console &console, const Settings &settings);

    Console &console;
    const Settings settings;
    const ServerFiles files;
    RpcClient client;
    ServerStatus server; ///< set by connectToServer(): what was connected to, or why nothing was

    /** Connects, unless that is done; @p start says whether a server may be started for it. */
    [[nodiscard]] bool connectToServer(ServerConnector::Start start, Failure *failure);

    /** The sessions of the connected server itself. */
    [[nodiscard]] bool listLocal(SessionList *sessions, Failure *failure);

    /** The same with those that other servers of the user have reported. */
    [[nodiscard]] bool listAll(SessionList *sessions, Failure *failure);

    /**
     * Finds a session that the connected server can work with.
     * @param failure  for one on another host: WrongState, with the way to get there
     */
    [[nodiscard]] bool findLocal(const QString &target, SessionEntry *found, Failure *failure);

    /** Calls a method that takes the id of a session. */
    [[nodiscard]] bool callWithId(const QString &method, const QString &id, Json::Value *result, Failure *failure);

private:
    bool list(const QString &method, SessionList *sessions, Failure *failure);
};

/** A JSON array of texts, for the parameters of a request. */
[[nodiscard]] Json::Value jsonTexts(const QStringList &texts);

/** The name of this host, for people. */
[[nodiscard]] QString localHostName();
