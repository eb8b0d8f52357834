// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

#include <memory>
#include <vector>

/** All verbs, in the order in which the help text lists them. */
[[nodiscard]] std::vector<std::unique_ptr<Verb>> allVerbs();

/** The verb of this name or alias; null when there is none. */
[[nodiscard]] std::unique_ptr<Verb> findVerb(const QString &name);
