// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"

/** Runs a verb with these arguments, as main() does. */
inline ExitCode runVerb(const Verb &verb, ClientContext &context, const QStringList &arguments)
{
    QCommandLineParser line;
    addOptions(verb, &line);
    if (!line.parse(QStringList(verb.name) + arguments)) {
        qFatal("wrong usage");
    }
    return verb.run(line, context);
}
