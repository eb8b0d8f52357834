// SPDX-License-Identifier: MIT
#pragma once

#include "live/livemethod.h"

/** "Live.ListSessions": the sessions of all the user's servers. */
class ListSessionsMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;
};
