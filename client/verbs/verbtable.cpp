// SPDX-License-Identifier: MIT
#include "client/verbs/verbtable.h"

#include "client/verbs/connectverb.h"
#include "client/verbs/describeverb.h"
#include "client/verbs/doctorverb.h"
#include "client/verbs/listverb.h"
#include "client/verbs/logsverb.h"
#include "client/verbs/replayverb.h"
#include "client/verbs/resumeverb.h"
#include "client/verbs/screenshotverb.h"
#include "client/verbs/serververb.h"
#include "client/verbs/startverb.h"
#include "client/verbs/suspendverb.h"
#include "client/verbs/terminateverb.h"
#include "client/verbs/versionverb.h"
#include "client/verbs/waitverb.h"
#include "client/verbs/watchverb.h"

#include <algorithm>
#include <utility>

namespace {

template <typename... Verbs>
std::vector<std::unique_ptr<Verb>> makeVerbs()
{
    std::vector<std::unique_ptr<Verb>> verbs;
    (verbs.push_back(std::make_unique<Verbs>()), ...);
    return verbs;
}

} // namespace

std::vector<std::unique_ptr<Verb>> allVerbs()
{
    return makeVerbs<ConnectVerb, ListVerb, StartVerb, ResumeVerb, ReplayVerb, SuspendVerb, TerminateVerb, WatchVerb,
                     WaitVerb, LogsVerb, ScreenshotVerb, DoctorVerb, ServerVerb, VersionVerb, DescribeVerb>();
}

std::unique_ptr<Verb> findVerb(const QString &name)
{
    std::vector<std::unique_ptr<Verb>> verbs = allVerbs();
    const auto found = std::find_if(verbs.begin(), verbs.end(), [&name](const std::unique_ptr<Verb> &verb) {
        const VerbText text = verb->text();
        return text.name == name || text.aliases.contains(name);
    });
    return found == verbs.end() ? nullptr : std::move(*found);
}
