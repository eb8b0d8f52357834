// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/** How the program ends. Scripts rely on the numbers, so a number never changes its meaning. */
enum class ExitCode : int {
    Done = 0,
    Negative = 1,           ///< the answer to the question is no
    Usage = 2,              ///< the command line makes no sense
    NoSuchSession = 3,      ///< no session matches the argument
    Ambiguous = 4,          ///< more than one session matches the argument
    NoServer = 5,           ///< no server answers
    CertificateRefused = 6, ///< the certificates of client and server differ, or one cannot be used
    TimedOut = 7,           ///< no answer or event arrived in time
    SessionFailed = 8,      ///< the server or the agent failed to do it
    WrongState = 9,         ///< the session's state does not allow it
    NoViewer = 10,          ///< there is no viewer, or it failed
    UntrustedLocation = 12, ///< the session's location is not the host that has reported it
};

/** Why something failed, in words for the user, and the exit code for it. */
struct Failure
{
    ExitCode code = ExitCode::Done;
    QString text; ///< one sentence; further lines are details
};

/** Fills @p failure and returns false, so that a function can fail in one statement. */
bool fail(Failure *failure, ExitCode code, const QString &text);

/** The table of exit codes as the help text shows it. */
[[nodiscard]] QString exitCodeHelp();
