// SPDX-License-Identifier: MIT
#include "live/listsessionsmethod.h"

#include "contract/sessionerror.h"
#include "live/sessionstore.h"

bool ListSessionsMethod::execute(const Json::Value &, Json::Value &result)
{
    QList<SessionInfo> sessions;
    if (const int code = store->listSessions(sessions); code != SessionOk) {
        return failSession(code, result);
    }
    result = sessionListToJson(sessions);
    return true;
}

Json::Value ListSessionsMethod::describe() const
{
    return describeMethod("Returns all sessions known to the server.", {}, "An array of session objects.");
}
