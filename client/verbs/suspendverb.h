// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

/** "zarvoctl suspend": throws the viewers out of a session. */
class SuspendVerb final : public Verb
{
public:
    [[nodiscard]] VerbText text() const override;
    [[nodiscard]] QList<QCommandLineOption> options() const override;
    [[nodiscard]] ExitCode run(const QCommandLineParser &line, ClientContext &context) override;
};
