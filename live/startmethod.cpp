// SPDX-License-Identifier: MIT
#include "live/startmethod.h"

#include "contract/sessionerror.h"
#include "live/sessionstore.h"
#include "support/json.h"

bool StartMethod::execute(const Json::Value &params, Json::Value &result)
{
    const std::optional<QStringList> values = readParameters(params, {"id", "command", "geometry"});
    if (!values) {
        return failParameters(result);
    }
    const QString &geometry = values->at(2);
    QString password;
    quint16 port = 0;
    if (const int code = store->start(values->at(0), values->at(1), geometry, password, port); code != SessionOk) {
        return failSession(code, result);
    }
    result["geometry"] = jsonString(geometry);
    result["password"] = jsonString(password);
    result["port"] = port;
    return true;
}

Json::Value StartMethod::describe() const
{
    return describeMethod("Starts a new session.",
                          {{"id", "The session id."},
                           {"command", "The command line for the application to run."},
                           {"geometry", "The width and height in \"WxH\" format for a Desktop session or \"rootless\" "
                                        "for a Single Application session."}},
                          "An object with the geometry, password and port number.");
}
