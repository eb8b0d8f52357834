// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

#include <QList>

#include <optional>

/** All verbs, in the order in which the help text lists them. */
[[nodiscard]] QList<Verb> allVerbs();

/** The verb of this name or alias; null when there is none. */
[[nodiscard]] std::optional<Verb> findVerb(const QString &name);
