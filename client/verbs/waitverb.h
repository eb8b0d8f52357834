// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

/** "zarvoctl wait": waits until a session is in a state. */
class WaitVerb final : public Verb
{
public:
    [[nodiscard]] VerbText text() const override;
    [[nodiscard]] QList<QCommandLineOption> options() const override;
    [[nodiscard]] ExitCode run(const QCommandLineParser &line, ClientContext &context) override;
};
