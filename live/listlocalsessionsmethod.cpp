// SPDX-License-Identifier: MIT
#include "live/listlocalsessionsmethod.h"

#include "contract/sessionerror.h"
#include "live/sessionstore.h"

bool ListLocalSessionsMethod::execute(const Json::Value &, Json::Value &result)
{
    QList<SessionInfo> sessions;
    if (const int code = store->listLocalSessions(sessions); code != SessionOk) {
        return failSession(code, result);
    }
    result = sessionListToJson(sessions);
    return true;
}

Json::Value ListLocalSessionsMethod::describe() const
{
    return describeMethod("Returns the sessions on the server.", {}, "An array of session objects.");
}
