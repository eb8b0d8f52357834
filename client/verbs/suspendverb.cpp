// SPDX-License-Identifier: MIT
#include "client/terminal/progress.h"
#include "client/verbs/verbs.h"

using namespace Qt::StringLiterals;

namespace {

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    SessionEntry session;
    Json::Value ignored;
    if (!context.connectToServer(startMode(line), &failure) ||
        !context.findLocal(firstArgument(line), &session, &failure)) {
        return context.console.report(failure);
    }
    const Progress progress(u"Suspending"_s);
    if (!context.callWithId(u"Live.Suspend"_s, session.id, &ignored, &failure)) {
        if (failure.code == ExitCode::WrongState) {
            failure.text += u" No viewer is connected."_s;
        }
        return context.console.report(failure);
    }
    return ExitCode::Done;
}

} // namespace

Verb suspendVerb()
{
    return {.name = u"suspend"_s,
            .arguments = u"[SESSION]"_s,
            .summary = u"Disconnect the viewers; the programs go on."_s,
            .description = u"Disconnects all viewers of a session. Its programs go on running."_s,
            .examples = {u"zarvoctl suspend 3f2a"_s},
            .maxArguments = 1,
            .options = {noStartOption()},
            .run = run};
}
