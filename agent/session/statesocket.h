// SPDX-License-Identifier: MIT
#pragma once

#include "support/localendpoint.h"

#include <QObject>

class SessionState;

/**
 * Sends the state of the session, one JSON object, to every process that connects to the display's socket, and closes
 * the connection. It reads nothing and never waits, because the object fits into the socket's buffer. So a peer that
 * does not read costs nothing. Owned by the agent, lives on the main thread.
 */
class StateSocket final : public QObject
{
    Q_OBJECT

public:
    /** @param state  outlives this object */
    explicit StateSocket(const SessionState *state, QObject *parent = nullptr);

    /**
     * Serves at @p path until destroyed. Replaces the socket of a dead agent.
     *
     * @param error  set only on failure: one sentence that names the path. The socket of a live agent is a failure
     */
    [[nodiscard]] bool listen(const QString &path, QString *error);

private:
    void Endpoint_accepted(int descriptor);

    const SessionState *state;
    LocalEndpoint endpoint;
};
