// SPDX-License-Identifier: MIT
#include "discovery/announcement.h"
#include "fuzz/target.h"
#include "support/json.h"

#include <optional>

namespace {

bool isNumberWritten(const Json::Value &value)
{
    return value.type() == Json::intValue || value.type() == Json::uintValue;
}

bool isAnnouncement(const Json::Value &value)
{
    return value.isObject() && value.isMember("Method") && value["Method"].isString() && value.isMember("User") &&
           value["User"].isString() && value.isMember("Port") && isNumberWritten(value["Port"]) &&
           value["Port"] >= Json::Value(0) && value["Port"] <= Json::Value(65535);
}

void fuzzAnnouncement(const QByteArray &input)
{
    bool isJson = false;
    const std::optional<Announcement> announcement = Announcement::fromDatagram(input, &isJson);
    Json::Value value;
    FUZZ_CHECK(isJson == parseJson(input, &value));
    FUZZ_CHECK(announcement.has_value() == (isJson && isAnnouncement(value)));
    if (!announcement) {
        return;
    }
    FUZZ_CHECK(announcement->port == value["Port"].asUInt());
    const QByteArray datagram = announcement->toDatagram();
    const std::optional<Announcement> again = Announcement::fromDatagram(datagram, &isJson);
    FUZZ_CHECK(again && isJson && again->toDatagram() == datagram);
    FUZZ_CHECK(again->method == announcement->method && again->port == announcement->port);
    FUZZ_CHECK(again->user == announcement->user);
}

} // namespace

ZARVO_FUZZ(fuzzAnnouncement)
