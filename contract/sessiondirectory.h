// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>
#include <QString>

/*
 * What the server and an agent agree on: the names of their files in the session directory, and what is tied to a
 * display number.
 */

namespace SessionFile {
// Written by the server at the start.
inline constexpr QLatin1StringView kDisplay("display");        ///< the display number
inline constexpr QLatin1StringView kWindowMode("window_mode"); ///< "rootless" or "desktop"
inline constexpr QLatin1StringView kName("name");              ///< what viewers show as title
inline constexpr QLatin1StringView kInfo("info");
inline constexpr QLatin1StringView kAuthority("authority");    ///< the display's cookie
inline constexpr QLatin1StringView kMonitorPid("monitor_pid"); ///< the process whose end is the session's
inline constexpr QLatin1StringView kAppLog("app_log");         ///< what the applications print
// Written by the agent.
inline constexpr QLatin1StringView kServerPid("server_pid");   ///< who takes the signals
inline constexpr QLatin1StringView kServerLog("server_log");   ///< what happened, a line each
inline constexpr QLatin1StringView kServerExit("server_exit"); ///< the exit code, once all is over
} // namespace SessionFile

/** The TCP port of the agent of display 0; the port of display N is N above it. */
inline constexpr int kFirstAgentPort = 41000;

/** Where the agent of this display listens for viewers; computed in 16 bits. */
[[nodiscard]] constexpr quint16 agentPort(quint16 display)
{
    return static_cast<quint16>(kFirstAgentPort + display);
}

/** The local socket on which an agent tells its state, with "%1" in place of the display number. */
inline constexpr QLatin1StringView kAgentSocketForm("/tmp/Xrdp_%1.sock");

[[nodiscard]] inline QString agentSocketPath(quint16 display)
{
    return QString(kAgentSocketForm).arg(display);
}
