// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/** How the program ends. Scripts rely on the numbers, so none is ever given another meaning. */
enum class ExitCode : int {
    Done = 0,
    Negative = 1,           ///< the question was answered with no
    Usage = 2,              ///< the command line makes no sense
    NoSuchSession = 3,      ///< nothing fits the given session
    Ambiguous = 4,          ///< more than one session fits
    NoServer = 5,           ///< no server answers
    CertificateRefused = 6, ///< what answers is not proved to be our server, or does not take us for its user
    TimedOut = 7,           ///< an answer or an event did not come in time
    SessionFailed = 8,      ///< the server or the agent could not do it
    WrongState = 9,         ///< not possible in the state that the session is in
    NoViewer = 10,          ///< no viewer could be run
};

/** Why something did not work, as the user is told, and the exit code that it leads to. */
struct Failure
{
    ExitCode code = ExitCode::Done;
    QString text; ///< one sentence; further lines are details
};

/** Fills @p failure and returns false, so that a function can fail in one statement. */
bool fail(Failure *failure, ExitCode code, const QString &text);

/** The table of exit codes as the help text shows it. */
[[nodiscard]] QString exitCodeHelp();
