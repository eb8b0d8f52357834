// SPDX-License-Identifier: MIT
#include "client/verbs/verbtable.h"

#include "client/verbs/verbs.h"

#include <algorithm>

QList<Verb> allVerbs()
{
    return {connectVerb(),   listVerb(),   startVerb(),       resumeVerb(),  replayVerb(),     suspendVerb(),
            terminateVerb(), watchVerb(),  waitVerb(),        logsVerb(),    screenshotVerb(), pipeVerb(),
            doctorVerb(),    serverVerb(), certificateVerb(), versionVerb(), describeVerb()};
}

std::optional<Verb> findVerb(const QString &name)
{
    const QList<Verb> verbs = allVerbs();
    const auto found = std::find_if(verbs.begin(), verbs.end(), [&name](const Verb &verb) {
        return verb.name == name || verb.aliases.contains(name);
    });
    return found == verbs.end() ? std::nullopt : std::optional(*found);
}
