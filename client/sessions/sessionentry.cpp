// SPDX-License-Identifier: MIT
#include "client/sessions/sessionentry.h"

#include "support/json.h"

#include <QUrl>

#include <algorithm>
#include <array>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMinShortId = 8;

struct StateRow
{
    EntryState state;
    QLatin1StringView name;
    QLatin1StringView permission; ///< the server grants it in this state and in no other
};

constexpr std::array kStates = {
    StateRow{EntryState::Connected, "connected"_L1, "disconnect"_L1},
    StateRow{EntryState::Offered, "offered"_L1, "retry"_L1},
    StateRow{EntryState::Suspended, "suspended"_L1, "connect"_L1},
};

Json::Value timeToJson(const QString &time)
{
    return time.isEmpty() ? Json::Value() : jsonString(time);
}

qsizetype commonPrefix(const QString &left, const QString &right)
{
    return std::mismatch(left.begin(), left.end(), right.begin(), right.end()).first - left.begin();
}

} // namespace

QString stateName(EntryState state)
{
    const auto row =
        std::find_if(kStates.begin(), kStates.end(), [state](const StateRow &r) { return r.state == state; });
    return row == kStates.end() ? u"unknown"_s : QString(row->name);
}

std::optional<EntryState> stateFromName(const QString &name)
{
    const auto row =
        std::find_if(kStates.begin(), kStates.end(), [&name](const StateRow &r) { return r.name == name; });
    return row == kStates.end() ? std::nullopt : std::optional(row->state);
}

EntryState SessionEntry::state() const
{
    const auto row = std::find_if(kStates.begin(), kStates.end(),
                                  [this](const StateRow &r) { return permissions.contains(r.permission); });
    return row == kStates.end() ? EntryState::Unknown : row->state;
}

QString SessionEntry::host() const
{
    return location.isEmpty() ? QString() : QUrl(location).host();
}

Json::Value SessionEntry::toJson() const
{
    Json::Value value(Json::objectValue);
    value["id"] = jsonString(id);
    value["location"] = jsonString(location);
    value["windowMode"] = jsonString(windowMode);
    value["name"] = jsonString(name);
    value["state"] = jsonString(stateName(state()));
    value["started"] = timeToJson(started);
    value["lastConnect"] = timeToJson(lastConnect);
    value["lastDisconnect"] = timeToJson(lastDisconnect);
    value["trusted"] = trusted;
    value["permissions"] = Json::Value(Json::arrayValue);
    for (const QString &permission : permissions) {
        value["permissions"].append(jsonString(permission));
    }
    return value;
}

std::optional<SessionEntry> SessionEntry::fromJson(const Json::Value &value)
{
    const auto text = [&value](const char *key) { return stringFromJson(member(value, key)); };
    SessionEntry entry;
    entry.id = text("id");
    if (entry.id.isEmpty()) {
        return std::nullopt;
    }
    entry.location = text("location");
    entry.windowMode = text("windowMode");
    entry.name = text("name");
    entry.started = text("started");
    entry.lastConnect = text("lastConnect");
    entry.lastDisconnect = text("lastDisconnect");
    entry.permissions = text("permissions").split(u'|', Qt::SkipEmptyParts);
    return entry;
}

SessionList entriesFromJson(const Json::Value &value)
{
    SessionList sessions;
    if (!value.isArray()) {
        return sessions;
    }
    for (const Json::Value &element : value) {
        if (std::optional<SessionEntry> entry = SessionEntry::fromJson(element)) {
            sessions.append(std::move(*entry));
        }
    }
    return sessions;
}

Json::Value entriesToJson(const SessionList &sessions)
{
    Json::Value list(Json::arrayValue);
    for (const SessionEntry &entry : sessions) {
        list.append(entry.toJson());
    }
    return list;
}

int shortIdLength(const SessionList &sessions)
{
    QStringList ids;
    for (const SessionEntry &entry : sessions) {
        ids.append(entry.id);
    }
    ids.sort();
    qsizetype length = kMinShortId;
    for (qsizetype i = 1; i < ids.size(); ++i) {
        // Two servers may list the same id; no number of digits distinguishes those.
        if (ids[i] != ids[i - 1]) {
            length = std::max(length, commonPrefix(ids[i - 1], ids[i]) + 1);
        }
    }
    return static_cast<int>(length);
}
