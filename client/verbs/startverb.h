// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

/** "zarvoctl start": a new session. */
class StartVerb final : public Verb
{
public:
    [[nodiscard]] VerbText text() const override;
    [[nodiscard]] QList<QCommandLineOption> options() const override;
    [[nodiscard]] bool endsWithCommand() const override { return true; }
    [[nodiscard]] ExitCode run(const QCommandLineParser &line, ClientContext &context) override;
};
