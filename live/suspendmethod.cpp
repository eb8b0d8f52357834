// SPDX-License-Identifier: MIT
#include "live/suspendmethod.h"

#include "live/sessionstore.h"

bool SuspendMethod::execute(const Json::Value &params, Json::Value &result)
{
    return answerNothing(params, &SessionStore::suspend, result);
}

Json::Value SuspendMethod::describe() const
{
    return describeMethod("Disconnects all clients from a session.", {{"id", "The session id."}}, nullptr);
}
