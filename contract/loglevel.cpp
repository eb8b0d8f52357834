// SPDX-License-Identifier: MIT
#include "contract/loglevel.h"

#include <array>

using namespace Qt::StringLiterals;

namespace {

/** By their numbers. */
constexpr std::array kNames = {"Critical"_L1, "Warning"_L1, "Info"_L1, "Debug1"_L1, "Debug2"_L1, "Debug3"_L1};

} // namespace

QString logLevelName(int level)
{
    if (level < 0 || level >= static_cast<int>(kNames.size())) {
        return {};
    }
    return kNames[static_cast<size_t>(level)];
}

std::optional<int> logLevelFromName(const QString &name)
{
    for (size_t level = 0; level < kNames.size(); ++level) {
        if (name == kNames[level]) {
            return static_cast<int>(level);
        }
    }
    return std::nullopt;
}
