// SPDX-License-Identifier: MIT
#pragma once

#include "support/sessioncontract.h"

#include <QLatin1StringView>

/*
 * The agent's own files. They stand in the session directory, which is its working directory, and are used relative to
 * it: the path of the directory may be longer than a socket's address can hold.
 */
namespace AgentFile {

inline constexpr QLatin1StringView kApplicationSocket("app.sock"); ///< where start-app hands its command line over
inline constexpr QLatin1StringView kRfbSocket("rfb.sock");         ///< where the X server waits for the front door
inline constexpr QLatin1StringView kWindowManagerSettings("openbox.xml");

} // namespace AgentFile

/** How the agent ends, as the text of its exit file and the exit code of its process. */
enum class ExitCode : int {
    Ended = 0,        ///< on request
    NotStarted = 1,   ///< something that it needs is missing, taken or refused
    BadArguments = 2, ///< its command line makes no sense
    ServerDied = 3,   ///< the X server ended by itself
};
