// SPDX-License-Identifier: MIT
#pragma once

#include "live/livemethod.h"

/** "Live.Resume": a new password for a session without a client. Blocks for seconds. */
class ResumeMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;
};
