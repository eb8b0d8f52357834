// SPDX-License-Identifier: MIT
#pragma once

#include "live/livemethod.h"

/** "Live.Start": starts a session and hands out a password for its display. Blocks for seconds. */
class StartMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;
};
