// SPDX-License-Identifier: MIT
#include "live/resumemethod.h"

#include "live/sessionstore.h"

bool ResumeMethod::execute(const Json::Value &params, Json::Value &result)
{
    return answerConnection(params, &SessionStore::resume, result);
}

Json::Value ResumeMethod::describe() const
{
    return describeMethod("Reconnects to a session.", {{"id", "The session id."}},
                          "An object with the window mode, geometry, password and port number.");
}
