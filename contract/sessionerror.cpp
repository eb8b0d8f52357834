// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"

namespace {

const char *messageText(int code)
{
    switch (code) {
    case UnknownError:
        return "An unknown error occurred.";
    case NotInitialized:
        return "The object is not initialized.";
    case InvalidCredentials:
        return "The given credentials are not valid.";
    case InvalidToken:
        return "The given token is invalid.";
    case PermissionDenied:
        return "You do not have permission to perform this operation.";
    case NoSuchSession:
        return "No session exists with the given id.";
    case NotASession:
        return "The path does not contain session information.";
    case InvalidState:
        return "The requested operation can not be started from the current state.";
    case NoSuchPath:
        return "The path does not exist.";
    case NoOpenDisplay:
        return "Failed to find an open display.";
    case CookieFailed:
        return "Failed to generate an xauthority cookie.";
    case DirectoryFailed:
        return "Failed to create the session directory.";
    case ReadFailed:
        return "Failed to read a session file.";
    case AgentFailed:
        return "Failed to start the agent.";
    case ApplicationFailed:
        return "Failed to start the application.";
    case ScreenShotFailed:
        return "Failed to start the screen shot application.";
    case WriteFailed:
        return "Failed to write a session file.";
    case TimedOut:
        return "Timed out waiting for the agent.";
    default:
        return "";
    }
}

} // namespace

QString errorMessage(int code)
{
    return QString::fromLatin1(messageText(code));
}
