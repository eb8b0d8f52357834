// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"
#include "client/terminal/exitcode.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>

/** What the user is told about a verb, and what its command line may hold. */
struct VerbText
{
    QString name;
    QString arguments; ///< as in "SESSION --for STATE"; empty when there are none
    QString summary;   ///< one line, for the list of all verbs
    QString description;
    QStringList examples;
    QStringList aliases = {};
    qsizetype minArguments = 0;
    qsizetype maxArguments = 0; ///< -1: any number
};

/**
 * One thing that the program can do. Verbs have no state of their own; one is made, run once on the main thread
 * and thrown away.
 */
class Verb
{
public:
    virtual ~Verb() = default;

    [[nodiscard]] virtual VerbText text() const = 0;
    [[nodiscard]] virtual QList<QCommandLineOption> options() const { return {}; }

    /** Whether the first argument that is no option begins a command, whose options are not ours. */
    [[nodiscard]] virtual bool endsWithCommand() const { return false; }

    [[nodiscard]] virtual ExitCode run(const QCommandLineParser &line, ClientContext &context) = 0;
};

// Options that several verbs have, so that they read and work alike.
[[nodiscard]] QCommandLineOption jsonOption();
[[nodiscard]] QCommandLineOption noStartOption();
[[nodiscard]] QCommandLineOption linesOption();
[[nodiscard]] QCommandLineOption geometryOption();

/** What --no-start says. */
[[nodiscard]] ServerConnector::Start startMode(const QCommandLineParser &line);

/** The number that --lines gives; false for anything that is no number. */
[[nodiscard]] bool linesValue(const QCommandLineParser &line, int *lines, Failure *failure);

/** The first argument; empty when there is none. */
[[nodiscard]] QString firstArgument(const QCommandLineParser &line);
