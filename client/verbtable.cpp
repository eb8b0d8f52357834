// SPDX-License-Identifier: MIT
#include "client/verbtable.h"

#include "client/connectverb.h"
#include "client/describeverb.h"
#include "client/doctorverb.h"
#include "client/listverb.h"
#include "client/logsverb.h"
#include "client/replayverb.h"
#include "client/resumeverb.h"
#include "client/screenshotverb.h"
#include "client/serververb.h"
#include "client/startverb.h"
#include "client/suspendverb.h"
#include "client/terminateverb.h"
#include "client/versionverb.h"
#include "client/waitverb.h"
#include "client/watchverb.h"

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
