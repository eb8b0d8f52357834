// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

/** "zarvoctl list": the sessions as a table. */
class ListVerb final : public Verb
{
public:
    [[nodiscard]] VerbText text() const override;
    [[nodiscard]] QList<QCommandLineOption> options() const override;
    [[nodiscard]] ExitCode run(const QCommandLineParser &line, ClientContext &context) override;
};
