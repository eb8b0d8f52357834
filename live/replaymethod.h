// SPDX-License-Identifier: MIT
#pragma once

#include "live/livemethod.h"

/** "Live.Replay": once more the password that a session offers already. */
class ReplayMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;
};
