// SPDX-License-Identifier: MIT
#include "client/sessions/clientcontext.h"
#include "client/verbs/completiontable.h"
#include "client/verbs/help.h"
#include "client/verbs/verbtable.h"
#include "contract/application.h"
#include "support/processhardening.h"
#include "support/standardstreams.h"

#include <QCoreApplication>

#include <cerrno>

using namespace Qt::StringLiterals;

namespace {

/** Drops Qt's own warnings, for example about the locale, because they tell a user of this program nothing. */
void dropQtMessage(QtMsgType, const QMessageLogContext &, const QString &)
{
}

ExitCode refuseUsage(Console &console, const QString &verb, const QString &problem)
{
    const QString name = verb.isEmpty() ? QString() : u' ' + verb;
    console.note(u"zarvoctl%1: %2\nTry: zarvoctl%1 --help"_s.arg(name, problem));
    return ExitCode::Usage;
}

QString argumentProblem(const Verb &verb, const QStringList &arguments)
{
    if (arguments.size() < verb.minArguments) {
        return u"An argument is missing. Expected: %1."_s.arg(verb.arguments);
    }
    if (verb.maxArguments >= 0 && arguments.size() > verb.maxArguments) {
        return u"\"%1\" is one argument too many."_s.arg(arguments.at(verb.maxArguments));
    }
    return {};
}

ExitCode runVerb(Console &console, const Verb &verb, const QStringList &arguments)
{
    QCommandLineParser line;
    line.addOptions(verbOptions());
    addOptions(verb, &line);
    const bool parsed = line.parse(arguments);
    if (line.isSet(u"help"_s)) {
        console.print(verbHelp(verb));
        return ExitCode::Done;
    }
    if (!parsed) {
        return refuseUsage(console, verb.name, line.errorText());
    }
    if (const QString problem = argumentProblem(verb, line.positionalArguments()); !problem.isEmpty()) {
        return refuseUsage(console, verb.name, problem);
    }
    ClientContext context(console, Settings::read());
    return verb.run(line, context);
}

ExitCode run(Console &console, const QStringList &arguments)
{
    const QString first = arguments.value(1);
    if (first.isEmpty()) {
        return refuseUsage(console, {}, u"A verb is missing."_s);
    }
    if (first == "--help"_L1 || first == "-h"_L1 || (first == "help"_L1 && arguments.size() == 2)) {
        console.print(programHelp());
        return ExitCode::Done;
    }
    if (first == "--version"_L1) {
        console.printLine(u"zarvoctl "_s + QCoreApplication::applicationVersion());
        return ExitCode::Done;
    }
    // Only the completion scripts need this, so help texts and manual leave it out.
    if (arguments.sliced(1) == QStringList{u"help"_s, u"--plain"_s}) {
        console.print(completionTable());
        return ExitCode::Done;
    }
    const bool asksForHelp = first == "help"_L1;
    const QString name = asksForHelp ? arguments.at(2) : first;
    const std::optional<Verb> verb = findVerb(name);
    if (!verb) {
        return refuseUsage(console, {}, u"There is no verb \"%1\"."_s.arg(name));
    }
    return runVerb(console, *verb, asksForHelp ? QStringList{name, u"--help"_s} : arguments.sliced(1));
}

} // namespace

int main(int argc, char **argv)
{
    disableCoreFiles();
    disableInspection();
    ensureStandardStreams();
    qInstallMessageHandler(dropQtMessage);
    const QCoreApplication application(argc, argv);
    nameApplication();
    Console console;
    ExitCode code = run(console, QCoreApplication::arguments());
    // A reader that stops early, as head does, is no failure.
    if (!console.flush() && console.writeError() != EPIPE) {
        console.note(u"zarvoctl: Failed to write to standard output: "_s + qt_error_string(console.writeError()));
        code = code == ExitCode::Done ? ExitCode::Negative : code;
    }
    return static_cast<int>(code);
}
