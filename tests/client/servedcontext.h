// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"
#include "support/json.h"
#include "tests/client/fakeserver.h"
#include "tests/client/fakeserverfiles.h"

#include <memory>
#include <utility>

/** A ClientContext that is connected to a FakeServer, which can be stopped and restarted. */
class ServedContext
{
public:
    explicit ServedContext(FakeServer::Answerer answerer_)
        : answerer(std::move(answerer_))
    {
        if (!files.make()) {
            qFatal("Failed to make the files of a server");
        }
        startServer();
        context = std::make_unique<ClientContext>(console, files.settings());
        Failure failure;
        if (!context->connectToServer(ServerConnector::Start::Forbidden, &failure)) {
            qFatal("%s", qPrintable(failure.text));
        }
    }

    [[nodiscard]] ClientContext *get() const { return context.get(); }
    ClientContext *operator->() const { return context.get(); }
    ClientContext &operator*() const { return *context; }

    [[nodiscard]] FakeServer &server() const { return *fake; }

    /** Starts a new server after stopServer(). */
    void startServer() { startServer(files.identity); }

    /** Starts a server with another certificate after stopServer(). */
    void startServerWithAnotherCertificate()
    {
        TestIdentity other;
        if (!makeTestIdentity(files.dir, QStringLiteral("other"), QString(), &other)) {
            qFatal("Failed to make a certificate");
        }
        startServer(other);
    }

    void stopServer()
    {
        files.remove();
        fake.reset();
    }

private:
    void startServer(const TestIdentity &identity)
    {
        fake = std::make_unique<FakeServer>(identity, answerer);
        files.name(fake->port());
    }

    const FakeServer::Answerer answerer;
    FakeServerFiles files;
    std::unique_ptr<FakeServer> fake;
    Console console;
    std::unique_ptr<ClientContext> context; ///< destroyed before the server
};

/** Answers that there is no such session. */
inline void refuseUnknownSession(QSslSocket *peer, const Json::Value &request)
{
    FakeServer::refuse(peer, request, -32094, "No such session.");
}

/** The list in the form that the server sends. */
[[nodiscard]] inline Json::Value serverList(const SessionList &sessions)
{
    Json::Value list; // the server sends null for an empty list
    for (const SessionEntry &session : sessions) {
        Json::Value entry(Json::objectValue);
        entry["id"] = jsonString(session.id);
        entry["name"] = jsonString(session.name);
        entry["location"] = jsonString(session.location);
        entry["permissions"] = jsonString(session.permissions.join(u'|'));
        list.append(entry);
    }
    return list;
}
