// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

/** "zarvoctl server": the server's own life. */
class ServerVerb final : public Verb
{
public:
    [[nodiscard]] VerbText text() const override;
    [[nodiscard]] QList<QCommandLineOption> options() const override;
    [[nodiscard]] ExitCode run(const QCommandLineParser &line, ClientContext &context) override;
};
