// SPDX-License-Identifier: MIT
#pragma once

#include "client/clientcontext.h"
#include "support/json.h"
#include "tests/client/fakeserver.h"
#include "tests/engine/files.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <memory>
#include <utility>

#include <sys/prctl.h>
#include <unistd.h>

/**
 * What a verb works with, connected to a FakeServer that its files name. The process passes itself off as a server, so
 * that this one is found.
 */
class ServedContext
{
public:
    explicit ServedContext(FakeServer::Answerer answerer)
    {
        if (!makeTestIdentity(dir, QStringLiteral("server"), QString(), &identity)) {
            qFatal("Failed to make a certificate");
        }
        QFile::rename(dir.filePath(QStringLiteral("server.cert")), dir.filePath(QStringLiteral("server_cert")));
        QFile::rename(dir.filePath(QStringLiteral("server.key")), dir.filePath(QStringLiteral("server_key")));
        QDir(dir.path()).mkpath(QStringLiteral("host"));
        ::prctl(PR_SET_NAME, "zarvo_server");
        server = std::make_unique<FakeServer>(identity, std::move(answerer));
        putFile(dir.filePath(QStringLiteral("host/server_pid")), QByteArray::number(::getpid()));
        putFile(dir.filePath(QStringLiteral("host/server_port")), QByteArray::number(server->port()));
        Settings settings{};
        settings.userPath = dir.filePath(QStringLiteral("host"));
        context = std::make_unique<ClientContext>(console, settings);
        Failure failure;
        if (!context->connectToServer(ServerConnector::Start::Forbidden, &failure)) {
            qFatal("%s", qPrintable(failure.text));
        }
    }

    ClientContext *operator->() const { return context.get(); }
    ClientContext &operator*() const { return *context; }

private:
    QTemporaryDir dir;
    TestIdentity identity;
    std::unique_ptr<FakeServer> server;
    Console console;
    std::unique_ptr<ClientContext> context; ///< goes before the server
};

/** The error that the server answers to a request about a session that it does not know. */
[[nodiscard]] inline Json::Value noSuchSession(const Json::Value &request)
{
    Json::Value message(Json::objectValue);
    message["jsonrpc"] = "2.0";
    message["id"] = request["id"];
    message["error"]["code"] = -32094;
    message["error"]["message"] = "No such session.";
    return message;
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
