// SPDX-License-Identifier: MIT
#pragma once

#include "contract/sessiondirectory.h"

#include <QLatin1StringView>
#include <QString>

/*
 * The agent's own files. They stand in the session directory, which is its working directory, and are used relative to
 * it: the path of the directory may be longer than a socket's address can hold.
 */
namespace AgentFile {

// By display: a session that is started again under its id works in the directory where the earlier one still may.
/** Where start-app hands its command line over. */
[[nodiscard]] inline QString applicationSocket(quint16 display)
{
    return QStringLiteral("app-%1.sock").arg(display);
}
/** Where the X server waits for the front door. */
[[nodiscard]] inline QString rfbSocket(quint16 display)
{
    return QStringLiteral("rfb-%1.sock").arg(display);
}

inline constexpr QLatin1StringView kWindowManagerSettings("openbox.xml");

} // namespace AgentFile

/** How the agent ends, as the text of its exit file and the exit code of its process. */
enum class AgentExitCode : int {
    Ended = 0,        ///< on request
    NotStarted = 1,   ///< something that it needs is missing, taken or refused
    BadArguments = 2, ///< its command line makes no sense
    XServerDied = 3,  ///< the X server ended by itself
    AgentDied = 4,    ///< the agent was killed, or its guard
    Unlisted = 5,     ///< no server knows of the session
};
