// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

// Each verb stands in the source file of its name; offerverb.cpp has two, which differ in the method that they call.
// verbtable.cpp lists them all.
[[nodiscard]] Verb certificateVerb();
[[nodiscard]] Verb connectVerb();
[[nodiscard]] Verb describeVerb();
[[nodiscard]] Verb doctorVerb();
[[nodiscard]] Verb listVerb();
[[nodiscard]] Verb logsVerb();
[[nodiscard]] Verb pipeVerb();
[[nodiscard]] Verb replayVerb();
[[nodiscard]] Verb resumeVerb();
[[nodiscard]] Verb screenshotVerb();
[[nodiscard]] Verb serverVerb();
[[nodiscard]] Verb startVerb();
[[nodiscard]] Verb suspendVerb();
[[nodiscard]] Verb terminateVerb();
[[nodiscard]] Verb versionVerb();
[[nodiscard]] Verb waitVerb();
[[nodiscard]] Verb watchVerb();
