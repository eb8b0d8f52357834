// SPDX-License-Identifier: MIT
#include "discovery/announcement.h"

#include "support/json.h"

#include <limits>

namespace {

bool isPort(const Json::Value &value)
{
    // For the JSON library 5.0 is an integer, too, so isUInt() alone would accept it.
    return (value.type() == Json::intValue || value.type() == Json::uintValue) && value.isUInt() &&
           value.asUInt() <= std::numeric_limits<quint16>::max();
}

} // namespace

QByteArray Announcement::toDatagram() const
{
    Json::Value object(Json::objectValue);
    object["Method"] = jsonString(method);
    object["Port"] = port;
    object["User"] = jsonString(user);
    return writeJson(object);
}

std::optional<Announcement> Announcement::fromDatagram(const QByteArray &datagram, bool *isJson)
{
    Json::Value object;
    *isJson = parseJson(datagram, &object);
    const Json::Value &method = member(object, "Method");
    const Json::Value &port = member(object, "Port");
    const Json::Value &user = member(object, "User");
    if (!*isJson || !method.isString() || !isPort(port) || !user.isString()) {
        return std::nullopt;
    }
    return Announcement{stringFromJson(method), static_cast<quint16>(port.asUInt()), stringFromJson(user)};
}
