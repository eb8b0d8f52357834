// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"
#include "client/terminal/exitcode.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>

/**
 * One thing that the program can do: what the user is told about it, what its command line may hold, and the function
 * that does it. A plain value; help, completion and main() take all that they know of a verb from it.
 */
struct Verb
{
    QString name;
    QString arguments = {}; ///< as in "SESSION --for STATE"; empty when there are none
    QString summary;        ///< one line, for the list of all verbs
    QString description;
    QStringList examples;
    QStringList aliases = {};
    qsizetype minArguments = 0;
    qsizetype maxArguments = 0;   ///< -1: any number
    bool endsWithCommand = false; ///< the first argument that is no option begins a command with options of its own
    QList<QCommandLineOption> options = {};
    ExitCode (*run)(const QCommandLineParser &line, ClientContext &context); ///< called once, on the main thread
};

/** Makes @p line read the command line of a verb. */
void addOptions(const Verb &verb, QCommandLineParser *line);

// Options that several verbs share.
[[nodiscard]] QCommandLineOption jsonOption();
[[nodiscard]] QCommandLineOption noStartOption();
[[nodiscard]] QCommandLineOption linesOption();
[[nodiscard]] QCommandLineOption geometryOption();

/** Whether a server may be started: not with --no-start. */
[[nodiscard]] ServerConnector::Start startMode(const QCommandLineParser &line);

/** Reads the value of --lines; false, with Usage, when it is not a number. */
[[nodiscard]] bool linesValue(const QCommandLineParser &line, int *lines, Failure *failure);

/** The first argument; empty when there is none. */
[[nodiscard]] QString firstArgument(const QCommandLineParser &line);
