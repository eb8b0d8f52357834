// SPDX-License-Identifier: MIT
#include "client/verbs/replayverb.h"

#include "client/verbs/offerverb.h"

using namespace Qt::StringLiterals;

VerbText ReplayVerb::text() const
{
    return {
        .name = u"replay"_s,
        .arguments = u"[SESSION]"_s,
        .summary = u"Print the password that a session offers already."_s,
        .description =
            u"Prints once more the password and the port that a session offers, for a viewer that did not get in."_s,
        .examples = {u"zarvoctl replay --json 3f2a"_s},
        .maxArguments = 1};
}

QList<QCommandLineOption> ReplayVerb::options() const
{
    return {jsonOption(), noStartOption()};
}

ExitCode ReplayVerb::run(const QCommandLineParser &line, ClientContext &context)
{
    return runOfferVerb(line, context, u"Live.Replay"_s);
}
