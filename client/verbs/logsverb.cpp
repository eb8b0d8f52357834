// SPDX-License-Identifier: MIT
#include "client/sessions/logtail.h"
#include "client/sessions/sessiondirectories.h"
#include "client/verbs/verbs.h"
#include "contract/sessiondirectory.h"

#include <QDir>

using namespace Qt::StringLiterals;

namespace {

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    int lines = 0;
    QString directory;
    if (!linesValue(line, &lines, &failure) ||
        !findSessionDirectory(context, firstArgument(line), &directory, &failure)) {
        return context.console.report(failure);
    }
    QString text;
    QString error;
    const bool isApp = line.isSet(u"app"_s);
    if (!readTail(QDir(directory).filePath(isApp ? SessionFile::kAppLog : SessionFile::kServerLog), lines, &text,
                  &error)) {
        return context.console.report(fileFailure(directory, {ExitCode::SessionFailed, error + u'.'}));
    }
    context.console.printForeign(isApp ? text : withoutPasswords(text));
    return ExitCode::Done;
}

} // namespace

Verb logsVerb()
{
    return {
        .name = u"logs"_s,
        .arguments = u"[SESSION]"_s,
        .summary = u"Print the log of a session's agent."_s,
        .description =
            u"Prints the log of a session's agent without the passwords, or with --app the output of its programs.\n"
            "A session that has failed is found by its id. Starts no server."_s,
        .examples = {u"zarvoctl logs 3f2a"_s, u"zarvoctl logs --app --lines 0 3f2a"_s},
        .maxArguments = 1,
        .options = {linesOption(), {u"app"_s, u"Print the output of the programs instead."_s}},
        .run = run};
}
