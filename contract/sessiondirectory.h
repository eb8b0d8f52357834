// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>
#include <QString>

/*
 * What the server and an agent agree on: the files in a session's directory, and the port and the socket of a display.
 */

/** The files in a session's directory, by their names. */
namespace SessionFile {
// The server writes these when it starts the session.
inline constexpr QLatin1StringView kDisplay("display");        ///< the display number
inline constexpr QLatin1StringView kWindowMode("window_mode"); ///< "rootless" or "desktop"
inline constexpr QLatin1StringView kName("name");              ///< the title that viewers show
inline constexpr QLatin1StringView kInfo("info");
inline constexpr QLatin1StringView kAuthority("authority");    ///< the display's cookie
inline constexpr QLatin1StringView kMonitorPid("monitor_pid"); ///< the session has ended when this process has
inline constexpr QLatin1StringView kAppLog("app_log");         ///< the output of the applications
// The agent writes these.
inline constexpr QLatin1StringView kServerPid("server_pid");   ///< the process that gets the signals
inline constexpr QLatin1StringView kServerLog("server_log");   ///< a line for each event
inline constexpr QLatin1StringView kServerExit("server_exit"); ///< the exit code, written last
} // namespace SessionFile

/** The TCP port of display 0, where its agent waits for viewers. Display N has the port N above it. */
inline constexpr int kFirstAgentPort = 41000;

/** The port of a display, computed in 16 bits. */
[[nodiscard]] constexpr quint16 agentPort(quint16 display)
{
    return static_cast<quint16>(kFirstAgentPort + display);
}

/**
 * The name, in the session's directory, of the local socket where the agent waits for the user's own viewers. It asks
 * for no password, because only this user and root can connect. The name holds the display, because a later run under
 * the same id may use the directory while the earlier run ends. Other agents may have no such socket.
 */
[[nodiscard]] inline QString viewerSocketName(quint16 display)
{
    return QStringLiteral("viewer-%1.sock").arg(display);
}

/** The path of the local socket that tells an agent's state; "%1" stands for the display number. */
inline constexpr QLatin1StringView kAgentSocketForm("/tmp/Xrdp_%1.sock");

[[nodiscard]] inline QString agentSocketPath(quint16 display)
{
    return QString(kAgentSocketForm).arg(display);
}
