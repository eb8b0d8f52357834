// SPDX-License-Identifier: MIT
#pragma once

#include "live/livemethod.h"

/** "Live.Suspend": throws all clients out of a session, which runs on. Blocks for seconds. */
class SuspendMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;
};
