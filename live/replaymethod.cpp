// SPDX-License-Identifier: MIT
#include "live/replaymethod.h"

#include "live/sessionstore.h"

bool ReplayMethod::execute(const Json::Value &params, Json::Value &result)
{
    return answerConnection(params, &SessionStore::replay, result);
}

Json::Value ReplayMethod::describe() const
{
    return describeMethod("Returns information about a session waiting for a connection.", {{"id", "The session id."}},
                          "An object with the window mode, geometry, password and port number.");
}
