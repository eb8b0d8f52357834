// SPDX-License-Identifier: MIT
#pragma once

#include "live/livemethod.h"

/** "Live.ListLocalSessions": the sessions of this server, which is what peers ask for. */
class ListLocalSessionsMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;
};
