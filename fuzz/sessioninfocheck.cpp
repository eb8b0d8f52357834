// SPDX-License-Identifier: MIT
#include "fuzz/sessioninfocheck.h"

#include "fuzz/target.h"
#include "live/sessioninfo.h"
#include "support/json.h"

#include <optional>

void checkSessionInfo(const SessionInfo &info)
{
    const QByteArray text = writeJson(info.toJson());
    FUZZ_CHECK(text.count('\n') == 1);
    Json::Value value;
    FUZZ_CHECK(parseJson(text, &value) && value.isObject() && value.size() == 8);
    for (const Json::Value &element : value) {
        FUZZ_CHECK(element.isString());
    }
    const std::optional<SessionInfo> again = SessionInfo::fromJson(value);
    FUZZ_CHECK(again);
    FUZZ_CHECK(again->id == info.id && again->windowMode == info.windowMode && again->name == info.name);
    FUZZ_CHECK(again->started == info.started);
    FUZZ_CHECK(again->lastConnect == info.lastConnect && again->lastDisconnect == info.lastDisconnect);
    FUZZ_CHECK(writeJson(again->toJson()) == text);
}
