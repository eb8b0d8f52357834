// SPDX-License-Identifier: MIT
#include "agent/session/statesocket.h"

#include "agent/session/sessionstate.h"

#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

StateSocket::StateSocket(const SessionState *state_, QObject *parent)
    : QObject(parent)
    , state(state_)
{
    connect(&endpoint, &LocalEndpoint::accepted, this, &StateSocket::Endpoint_accepted);
}

bool StateSocket::listen(const QString &path, QString *error)
{
    return endpoint.listen(path, error);
}

void StateSocket::Endpoint_accepted(int descriptor)
{
    const QByteArray text = state->toJson();
    [[maybe_unused]] const ssize_t sent =
        ::send(descriptor, text.constData(), static_cast<size_t>(text.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    ::close(descriptor);
}
