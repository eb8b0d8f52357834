// SPDX-License-Identifier: MIT
#include "client/sessions/peertrust.h"
#include "client/sessions/sessiontable.h"
#include "client/verbs/verbs.h"

using namespace Qt::StringLiterals;

namespace {

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    SessionList sessions;
    if (!context.connectToServer(startMode(line), &failure) ||
        !(line.isSet(u"local"_s) ? context.listLocal(&sessions, &failure) : context.listAll(&sessions, &failure))) {
        return context.console.report(failure);
    }
    markTrust(context.files, &sessions);
    if (line.isSet(u"json"_s)) {
        context.console.printJson(entriesToJson(sessions));
        return ExitCode::Done;
    }
    if (line.isSet(u"plain"_s)) {
        context.console.print(plainSessionTable(sessions, localHostName()));
        return ExitCode::Done;
    }
    if (sessions.isEmpty()) {
        context.console.note(u"There are no sessions."_s);
        return ExitCode::Done;
    }
    context.console.print(sessionTable(sessions, {.width = Console::outputWidth(),
                                                  .legend = !line.isSet(u"no-legend"_s),
                                                  .colour = Console::useColour(),
                                                  .localHost = localHostName()}));
    if (const QString note = untrustedNote(sessions); !note.isEmpty() && !line.isSet(u"no-legend"_s)) {
        context.console.note(note);
    }
    return ExitCode::Done;
}

} // namespace

Verb listVerb()
{
    return {.name = u"list"_s,
            .summary = u"List the sessions."_s,
            .description = u"Lists the sessions of this host, and of the user's other hosts that the server knows."_s,
            .examples = {u"zarvoctl list"_s, u"zarvoctl list --json | jq -r '.[].id'"_s},
            .aliases = {u"ls"_s},
            .options = {{u"local"_s, u"List only the sessions of this host."_s},
                        jsonOption(),
                        {u"plain"_s, u"For scripts: whole ids, tabs between fields, nothing cut off."_s},
                        {u"no-legend"_s, u"Leave out the title line."_s},
                        noStartOption()},
            .run = run};
}
