// SPDX-License-Identifier: MIT
#include "live/sessioninfo.h"

#include "engine/session.h"
#include "support/datetimetext.h"
#include "support/json.h"

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace {

constexpr std::array kKeys = {"id",      "location",    "windowMode",     "name",
                              "started", "lastConnect", "lastDisconnect", "permissions"};

QStringList permissionsOf(const Session &session)
{
    QStringList permissions;
    if (session.clients != 0) {
        permissions << u"disconnect"_s;
    } else {
        permissions << (session.passwords.isEmpty() ? u"connect"_s : u"retry"_s);
    }
    return permissions << u"terminate"_s;
}

} // namespace

SessionInfo::SessionInfo(const QString &id_, const QString &locationText, const Session &session)
    : id(id_)
    , location(QUrl(locationText))
    , windowMode(session.windowMode)
    , name(session.name)
    , started(session.started)
    , lastConnect(session.lastConnect)
    , lastDisconnect(session.lastDisconnect)
    , permissions(permissionsOf(session))
{
}

Json::Value SessionInfo::toJson() const
{
    Json::Value value(Json::objectValue);
    value["id"] = jsonString(id);
    value["location"] = jsonString(location.toString());
    value["windowMode"] = jsonString(windowMode);
    value["name"] = jsonString(name);
    value["started"] = jsonString(dateTimeToText(started));
    value["lastConnect"] = jsonString(dateTimeToText(lastConnect));
    value["lastDisconnect"] = jsonString(dateTimeToText(lastDisconnect));
    value["permissions"] = jsonString(permissions.join(u'|'));
    return value;
}

std::optional<SessionInfo> SessionInfo::fromJson(const Json::Value &value)
{
    if (!value.isObject() || !std::all_of(kKeys.begin(), kKeys.end(), [&value](const char *key) {
            return !hasMember(value, key) || member(value, key).isString();
        })) {
        return std::nullopt;
    }
    const auto text = [&value](const char *key) { return stringFromJson(member(value, key)); };

    SessionInfo info;
    info.id = text("id");
    info.location = QUrl(text("location"));
    info.windowMode = text("windowMode");
    info.name = text("name");
    info.started = dateTimeFromText(text("started"));
    info.lastConnect = dateTimeFromText(text("lastConnect"));
    info.lastDisconnect = dateTimeFromText(text("lastDisconnect"));
    if (hasMember(value, "permissions")) {
        info.permissions = text("permissions").split(u'|');
    }
    return info;
}

Json::Value sessionListToJson(const QList<SessionInfo> &sessions)
{
    Json::Value list;
    for (const SessionInfo &info : sessions) {
        list.append(info.toJson());
    }
    return list;
}
