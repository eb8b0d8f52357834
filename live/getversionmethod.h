// SPDX-License-Identifier: MIT
#pragma once

#include "live/livemethod.h"

/** "Live.GetVersion": the server's version. */
class GetVersionMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;
};
