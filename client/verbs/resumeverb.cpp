// SPDX-License-Identifier: MIT
#include "client/verbs/resumeverb.h"

#include "client/verbs/offerverb.h"

using namespace Qt::StringLiterals;

VerbText ResumeVerb::text() const
{
    return {.name = u"resume"_s,
            .arguments = u"[SESSION]"_s,
            .summary = u"Make a new password for a suspended session."_s,
            .description = u"Makes a suspended session offer a new password, and prints it with the port."_s,
            .examples = {u"zarvoctl resume 3f2a"_s},
            .maxArguments = 1};
}

QList<QCommandLineOption> ResumeVerb::options() const
{
    return {jsonOption(), noStartOption()};
}

ExitCode ResumeVerb::run(const QCommandLineParser &line, ClientContext &context)
{
    return runOfferVerb(line, context, u"Live.Resume"_s);
}
