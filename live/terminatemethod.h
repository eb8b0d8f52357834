// SPDX-License-Identifier: MIT
#pragma once

#include "live/livemethod.h"

/** "Live.Terminate": ends a session. Blocks for seconds. */
class TerminateMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;
};
