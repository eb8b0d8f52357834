// SPDX-License-Identifier: MIT
#include "fuzz/sessioninfocheck.h"
#include "fuzz/target.h"
#include "live/sessioninfo.h"
#include "support/datetimetext.h"
#include "support/json.h"

#include <optional>

namespace {

constexpr const char *kKeys[] = {"id",      "location",    "windowMode",     "name",
                                 "started", "lastConnect", "lastDisconnect", "permissions"};

/** Whether this is a valid description: each of its members is missing or a string. Other members are ignored. */
bool isDescription(const Json::Value &value)
{
    if (!value.isObject()) {
        return false;
    }
    for (const char *key : kKeys) {
        if (value.isMember(key) && !value[key].isString()) {
            return false;
        }
    }
    return true;
}

void checkTime(const QDateTime &time, const Json::Value &value)
{
    FUZZ_CHECK(time.isNull() || dateTimeToText(time) == stringFromJson(value));
}

void fuzzSessionInfo(const QByteArray &input)
{
    Json::Value value;
    if (!parseJson(input, &value)) {
        return;
    }
    const std::optional<SessionInfo> info = SessionInfo::fromJson(value);
    FUZZ_CHECK(info.has_value() == isDescription(value));
    if (!info) {
        return;
    }
    FUZZ_CHECK(info->id == stringFromJson(member(value, "id")));
    FUZZ_CHECK(info->name == stringFromJson(member(value, "name")));
    FUZZ_CHECK(info->permissions.join(u'|') == stringFromJson(member(value, "permissions")));
    checkTime(info->started, member(value, "started"));
    checkTime(info->lastConnect, member(value, "lastConnect"));
    checkTime(info->lastDisconnect, member(value, "lastDisconnect"));
    checkSessionInfo(*info);
    (void) sessionListToJson({*info, *info});
}

} // namespace

ZARVO_FUZZ(fuzzSessionInfo)
