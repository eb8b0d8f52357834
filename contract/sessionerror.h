// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * The result of an operation of the engine or the registry: 0 for success, or one of these. Clients see the numbers, so
 * none ever changes, and the gaps between them stay. The cause is logged where it occurs.
 */
enum SessionError : int {
    SessionOk = 0,
    UnknownError = -99,       ///< the system refused a check or a wait, or the agent ended during a wait
    NotInitialized = -98,     ///< an operation on a session without a directory
    InvalidCredentials = -97, ///< reserved
    InvalidToken = -96,       ///< reserved
    PermissionDenied = -95,   ///< reserved
    NoSuchSession = -94,      ///< the registry has no session with this id
    NotASession = -93,        ///< the session directory does not exist
    InvalidState = -92,       ///< the session's state does not allow the action
    NoSuchPath = -91,         ///< reserved
    NoOpenDisplay = -89,      ///< the display search found nothing
    CookieFailed = -88,       ///< no random cookie could be made
    DirectoryFailed = -87,    ///< the session directory could not be created
    ReadFailed = -86,         ///< a session file could not be opened or parsed
    AgentFailed = -84,        ///< the agent could not be started
    ApplicationFailed = -83,  ///< the application could not be started
    ScreenShotFailed = -82,   ///< reserved
    WriteFailed = -80,        ///< a session file could not be written
    TimedOut = -77,           ///< a wait reached its timeout
};

/** The sentence that clients see for @p code; empty for any other number. Callable from any thread. */
[[nodiscard]] QString errorMessage(int code);
