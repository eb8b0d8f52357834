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
 * Takes the place of the server: speaks TLS on a port of the loopback interface and passes each request to a function
 * of the test. Used on the main thread, as is the client under test.
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

    /** Connected clients whose handshake is done, oldest first. */
    [[nodiscard]] QList<QSslSocket *> clients() const { return sockets; }

    /** Answers a request with a result. */
    static void answer(QSslSocket *client, const Json::Value &request, const Json::Value &result);

    /** Answers a request with an error. */
    static void refuse(QSslSocket *client, const Json::Value &request, int code, const char *message);

    /** Sends a message as a frame. */
    static void send(QSslSocket *client, const Json::Value &message);

    /** Pushes a list of sessions. */
    static void notify(QSslSocket *client, const Json::Value &sessions);

private:
    void Server_pendingConnectionAvailable();
    void serve(QSslSocket *client);

    const Answerer answerer;
    QList<QSslSocket *> sockets; ///< children of the server
    int requestCount = 0;
    QSslServer server; ///< destroyed first, because its sockets still emit signals then
};
