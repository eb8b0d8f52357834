// SPDX-License-Identifier: MIT
#include "live/terminatemethod.h"

#include "live/sessionstore.h"

bool TerminateMethod::execute(const Json::Value &params, Json::Value &result)
{
    return answerNothing(params, &SessionStore::terminate, result);
}

Json::Value TerminateMethod::describe() const
{
    return describeMethod("Terminates a session.", {{"id", "The session id."}}, nullptr);
}
