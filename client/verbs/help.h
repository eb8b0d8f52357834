// SPDX-License-Identifier: MIT
#pragma once

#include <QCommandLineOption>
#include <QList>
#include <QString>
#include <QStringList>

struct Verb;

/** What "zarvoctl --help" prints. */
[[nodiscard]] QString programHelp();

/** What "zarvoctl VERB --help" prints. */
[[nodiscard]] QString verbHelp(const Verb &verb);

/** Options in the place of a verb. */
[[nodiscard]] QList<QCommandLineOption> programOptions();

/** Options that every verb has besides its own. */
[[nodiscard]] QList<QCommandLineOption> verbOptions();

/** The names of an option as they are typed: "-n", "--lines". */
[[nodiscard]] QStringList optionNames(const QCommandLineOption &option);
