// SPDX-License-Identifier: MIT
#pragma once

#include "support/localendpoint.h"

#include <QObject>

class SessionState;

/**
 * Tells whoever connects to the display's socket the state of the session: one JSON object, then the end. Nothing is
 * read, and nothing is waited for: the object fits into the socket's own buffer, and a peer that does not take it
 * costs nothing. Owned by the agent, lives on the main thread.
 */
class StateSocket final : public QObject
{
    Q_OBJECT

public:
    /** @param state outlives this object */
    explicit StateSocket(const SessionState *state, QObject *parent = nullptr);

    /**
     * Serves at @p path until destroyed. The path of a dead agent's socket is taken over.
     *
     * @param error  set only on failure, a live agent's socket included: one sentence that names the path
     */
    [[nodiscard]] bool listen(const QString &path, QString *error);

private:
    void Endpoint_accepted(int descriptor);

    const SessionState *state;
    LocalEndpoint endpoint;
};
