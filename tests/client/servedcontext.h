// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"
#include "support/json.h"
#include "tests/client/fakeserver.h"
#include "tests/client/fakeserverfiles.h"

#include <memory>
#include <utility>

/** What a verb works with, connected to a FakeServer that its files name. */
class ServedContext
{
public:
    explicit ServedContext(FakeServer::Answerer answerer)
    {
        if (!files.make()) {
            qFatal("Failed to make the files of a server");
        }
        server = std::make_unique<FakeServer>(files.identity, std::move(answerer));
        files.name(server->port());
        context = std::make_unique<ClientContext>(console, files.settings());
        Failure failure;
        if (!context->connectToServer(ServerConnector::Start::Forbidden, &failure)) {
            qFatal("%s", qPrintable(failure.text));
        }
    }

    ClientContext *operator->() const { return context.get(); }
    ClientContext &operator*() const { return *context; }

private:
    FakeServerFiles files;
    std::unique_ptr<FakeServer> server;
    Console console;
    std::unique_ptr<ClientContext> context; ///< goes before the server
};

/** Answers a request about a session that the server does not know. */
inline void refuseUnknownSession(QSslSocket *peer, const Json::Value &request)
{
    FakeServer::refuse(peer, request, -32094, "No such session.");
}

/** The server's form of a list of sessions. */
[[nodiscard]] inline Json::Value serverList(const SessionList &sessions)
{
    Json::Value list; // null without sessions
    for (const SessionEntry &session : sessions) {
        Json::Value entry(Json::objectValue);
        entry["id"] = jsonString(session.id);
        entry["name"] = jsonString(session.name);
        entry["permissions"] = jsonString(session.permissions.join(u'|'));
        list.append(entry);
    }
    return list;
}
