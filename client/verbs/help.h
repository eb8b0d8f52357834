// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class QCommandLineOption;
struct Verb;

/** What "zarvoctl --help" prints. */
[[nodiscard]] QString programHelp();

/** What "zarvoctl VERB --help" prints. */
[[nodiscard]] QString verbHelp(const Verb &verb);

/** The option as the help text and the manual show it: "-n, --lines N". */
[[nodiscard]] QString optionSynopsis(const QCommandLineOption &option);
