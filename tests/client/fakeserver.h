// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/testidentity.h"

#include <json/value.h>

#include <QList>
#include <QObject>
#include <QSslServer>
#include <QSslSocket>

#include <functional>

/**
 * In the place of the server: speaks TLS on a port of the loopback interface and hands each request to a function of
 * the test. Used on the main thread, beside the client that it serves.
 */
class FakeServer final : public QObject
{
    Q_OBJECT

public:
    using Answerer = std::function<void(QSslSocket *client, const Json::Value &request)>;

    FakeServer(const TestIdentity &identity, Answerer answerer);

    [[nodiscard]] quint16 port() const { return server.serverPort(); }

    /** How many requests have arrived. */
    [[nodiscard]] int requests() const { return requestCount; }

    /** Clients whose handshake is done, oldest first; those that have gone are not among them. */
    [[nodiscard]] QList<QSslSocket *> clients() const { return sockets; }

    /** Sends the answer with this result to a request. */
    static void answer(QSslSocket *client, const Json::Value &request, const Json::Value &result);

    /** Sends the answer with this error to a request. */
    static void refuse(QSslSocket *client, const Json::Value &request, int code, const char *message);

    /** Sends a message as a frame. */
    static void send(QSslSocket *client, const Json::Value &message);

    /** Sends the notification of a change, with these sessions. */
    static void notify(QSslSocket *client, const Json::Value &sessions);

private:
    void Server_pendingConnectionAvailable();
    void serve(QSslSocket *client);

    const Answerer answerer;
    QList<QSslSocket *> sockets; ///< children of the server
    int requestCount = 0;
    QSslServer server; ///< goes first: its children speak up when they go
};
