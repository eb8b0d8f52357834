// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

/** All that "resume" and "replay" do. */
[[nodiscard]] ExitCode runOfferVerb(const QCommandLineParser &line, ClientContext &context, const QString &method);
