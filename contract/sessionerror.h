// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * What engine and registry operations return: 0 for success or one of these. The numbers reach clients, so
 * they never change; those missing between them stay unassigned. The cause of a failure is logged where it
 * arises and does not travel with the code.
 */
enum SessionError : int {
    SessionOk = 0,
    UnknownError = -99,       ///< the liveness test or a sleep failed, or the agent went while waited for
    NotInitialized = -98,     ///< an operation on a session without a directory
    InvalidCredentials = -97, ///< reserved
    InvalidToken = -96,       ///< reserved
    PermissionDenied = -95,   ///< reserved
    NoSuchSession = -94,      ///< the registry knows no session of this id
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
    TimedOut = -77,           ///< a wait ran out of time
};

/** The sentence that clients see for @p code; empty for anything but an error code. Callable from any thread. */
[[nodiscard]] QString errorMessage(int code);
