// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>

/** The names of the settings in the settings file. settingTable() says what each one holds. */
namespace SettingKey {
inline constexpr QLatin1StringView kUserPath("UserPath");
inline constexpr QLatin1StringView kLogLevel("LogLevel");
inline constexpr QLatin1StringView kDisplayBase("DisplayBase");
inline constexpr QLatin1StringView kDisplayLimit("DisplayLimit");
inline constexpr QLatin1StringView kSciUrl("SciUrl");
inline constexpr QLatin1StringView kSuspendTimeout("SuspendTimeout");
inline constexpr QLatin1StringView kListenPort("ListenPort");
inline constexpr QLatin1StringView kBroadcastPort("BroadcastPort");
inline constexpr QLatin1StringView kBroadcastAddress("BroadcastAddress");
} // namespace SettingKey

/** The same for the bundled agent's own settings file. AgentSettings says what each one holds. */
namespace AgentSettingKey {
inline constexpr QLatin1StringView kAllowPlainFromNetwork("AllowPlainFromNetwork");
inline constexpr QLatin1StringView kListenAddress("ListenAddress");
inline constexpr QLatin1StringView kAllowLocalUsers("AllowLocalUsers");
inline constexpr QLatin1StringView kPasswordMinutes("PasswordMinutes");
} // namespace AgentSettingKey
