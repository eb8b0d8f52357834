// SPDX-License-Identifier: MIT
#include "tests/client/fakeserver.h"

#include "rpc/netstring.h"
#include "support/json.h"

#include <QHostAddress>
#include <QSslConfiguration>

#include <utility>

namespace {

/** An answer without result or error. */
Json::Value answerTo(const Json::Value &request)
{
    Json::Value message(Json::objectValue);
    message["jsonrpc"] = "2.0";
    message["id"] = member(request, "id");
    return message;
}

} // namespace

FakeServer::FakeServer(const TestIdentity &identity, Answerer answerer_)
    : answerer(std::move(answerer_))
{
    QSslConfiguration configuration;
    configuration.setCaCertificates({});
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    configuration.setLocalCertificate(identity.certificate);
    configuration.setPrivateKey(identity.key);
    server.setSslConfiguration(configuration);
    connect(&server, &QTcpServer::pendingConnectionAvailable, this, &FakeServer::Server_pendingConnectionAvailable);
    if (!server.listen(QHostAddress(QHostAddress::LocalHost))) {
        qFatal("Failed to listen on the loopback interface");
    }
}

void FakeServer::answer(QSslSocket *client, const Json::Value &request, const Json::Value &result)
{
    Json::Value message = answerTo(request);
    message["result"] = result;
    send(client, message);
}

void FakeServer::refuse(QSslSocket *client, const Json::Value &request, int code, const char *message)
{
    Json::Value refusal = answerTo(request);
    refusal["error"]["code"] = code;
    refusal["error"]["message"] = message;
    send(client, refusal);
}

void FakeServer::send(QSslSocket *client, const Json::Value &message)
{
    client->write(encodeNetString(writeJson(message)));
}

void FakeServer::notify(QSslSocket *client, const Json::Value &sessions)
{
    Json::Value message(Json::objectValue);
    message["jsonrpc"] = "2.0";
    message["method"] = "UpdateSessions";
    message["params"] = sessions;
    send(client, message);
}

void FakeServer::Server_pendingConnectionAvailable()
{
    auto *client = qobject_cast<QSslSocket *>(server.nextPendingConnection());
    sockets.append(client);
    connect(client, &QSslSocket::readyRead, this, [this, client] { serve(client); });
    connect(client, &QSslSocket::disconnected, this, [this, client] {
        sockets.removeOne(client);
        client->deleteLater();
    });
    serve(client); // the first request may have arrived before the connection of readyRead
}

void FakeServer::serve(QSslSocket *client)
{
    QByteArray buffer = client->peek(client->bytesAvailable());
    const qsizetype before = buffer.size();
    QByteArray payload;
    QString error;
    QList<Json::Value> taken;
    while (decodeNetString(buffer, payload, error) == 0) {
        Json::Value request;
        if (!parseJson(payload, &request)) {
            qFatal("A request is no JSON");
        }
        taken.append(request);
    }
    client->skip(before - buffer.size());
    for (const Json::Value &request : std::as_const(taken)) {
        ++requestCount;
        answerer(client, request);
    }
}
