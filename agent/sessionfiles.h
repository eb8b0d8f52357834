// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>

/*
 * The names that the agent and its surroundings agree on. All but the last stand in the session directory, which is the
 * agent's working directory, and are used relative to it: the path of the directory may be longer than a socket's
 * address can hold.
 */
namespace SessionFiles {

inline constexpr QLatin1StringView kDisplay("display");        ///< written before the start: the display's number
inline constexpr QLatin1StringView kName("name");              ///< written before the start: what viewers show as title
inline constexpr QLatin1StringView kAuthority("authority");    ///< written before the start: the display's cookie
inline constexpr QLatin1StringView kPid("server_pid");         ///< who takes the signals
inline constexpr QLatin1StringView kLog("server_log");         ///< what happened, in the forms of AgentLog
inline constexpr QLatin1StringView kExit("server_exit");       ///< the exit code, once all is over
inline constexpr QLatin1StringView kApplicationLog("app_log"); ///< what the applications print
inline constexpr QLatin1StringView kApplicationSocket("app.sock"); ///< where start-app hands its command line over
inline constexpr QLatin1StringView kRfbSocket("rfb.sock");         ///< where the X server waits for the front door
inline constexpr QLatin1StringView kWindowManagerSettings("openbox.xml");

} // namespace SessionFiles

/** The TCP port of display 0; the port of display N is N above it. */
inline constexpr int kFirstAgentPort = 41000;

/** How the agent ends, as the text of its exit file and the exit code of its process. */
enum class ExitCode : int {
    Ended = 0,        ///< on request
    NotStarted = 1,   ///< something that it needs is missing, taken or refused
    BadArguments = 2, ///< its command line makes no sense
    ServerDied = 3,   ///< the X server ended by itself
};
