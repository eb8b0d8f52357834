// SPDX-License-Identifier: MIT
#pragma once

#include "contract/sessiondirectory.h"

#include <QLatin1StringView>
#include <QString>

/*
 * The agent's own files in the session directory. The agent works in that directory and uses relative names, because
 * the path of the directory may be longer than the address of a socket can hold.
 */
namespace AgentFile {

// The names hold the display, because a later run under the same id may use the directory while the earlier run ends.
/** The socket that takes command lines from start-app. */
[[nodiscard]] inline QString applicationSocket(quint16 display)
{
    return QStringLiteral("app-%1.sock").arg(display);
}
/** The socket where the X server serves its screen to the front door. */
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
    BadArguments = 2, ///< its command line is wrong
    XServerDied = 3,  ///< the X server has ended by itself
    AgentDied = 4,    ///< the agent or its guard was killed
    Unlisted = 5,     ///< no server knows of the session
};
