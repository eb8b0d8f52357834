// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <optional>

/** The levels of log lines; a lower number is more severe. */
enum LogLevel : int {
    LogCritical = 0, ///< the process cannot go on
    LogWarning = 1,  ///< refused or degraded
    LogInfo = 2,     ///< the life of the process
    LogDebug1 = 3,   ///< what a developer needs, in growing detail
    LogDebug2 = 4,
    LogDebug3 = 5,
};

/** "Critical" to "Debug3", as in the log and in the settings; empty for any other number. Callable from any thread. */
[[nodiscard]] QString logLevelName(int level);

/** The level of exactly this name. Callable from any thread. */
[[nodiscard]] std::optional<int> logLevelFromName(const QString &name);
