// SPDX-License-Identifier: MIT
#include "client/sessions/offering.h"
#include "client/verbs/verbs.h"

using namespace Qt::StringLiterals;

namespace {

ExitCode run(const QCommandLineParser &line, ClientContext &context, const QString &method)
{
    Failure failure;
    SessionEntry session;
    ConnectionOffer offer;
    if (!context.connectToServer(startMode(line), &failure) ||
        !context.findLocal(firstArgument(line), &session, &failure) ||
        !requestOffer(context, method, session, &offer, &failure)) {
        return context.console.report(failure);
    }
    offer.print(context.console, line.isSet(u"json"_s));
    return ExitCode::Done;
}

ExitCode resume(const QCommandLineParser &line, ClientContext &context)
{
    return run(line, context, u"Live.Resume"_s);
}

ExitCode replay(const QCommandLineParser &line, ClientContext &context)
{
    return run(line, context, u"Live.Replay"_s);
}

} // namespace

Verb resumeVerb()
{
    return {.name = u"resume"_s,
            .arguments = u"[SESSION]"_s,
            .summary = u"Make a new password for a suspended session."_s,
            .description = u"Makes a suspended session offer a new password, and prints it with the port."_s,
            .examples = {u"zarvoctl resume 3f2a"_s},
            .maxArguments = 1,
            .options = {jsonOption(), noStartOption()},
            .run = resume};
}

Verb replayVerb()
{
    return {.name = u"replay"_s,
            .arguments = u"[SESSION]"_s,
            .summary = u"Print the password that a session already offers."_s,
            .description =
                u"Prints again the password and the port that a session offers, for a second try to connect."_s,
            .examples = {u"zarvoctl replay --json 3f2a"_s},
            .maxArguments = 1,
            .options = {jsonOption(), noStartOption()},
            .run = replay};
}
