// SPDX-License-Identifier: MIT
#include "client/watchverb.h"

#include "client/sessionchanges.h"
#include "client/sessionfollower.h"
#include "client/sessiontable.h"

#include <QTime>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

/** Redraws the terminal with the sessions as they are now. */
void drawTable(Console &console, const SessionList &sessions)
{
    const QString table = sessionTable(sessions, {.width = Console::outputWidth(),
                                                  .legend = true,
                                                  .colour = Console::useColour(),
                                                  .localHost = localHostName()});
    QStringList lines = table.split(u'\n', Qt::SkipEmptyParts);
    const QString time = QTime::currentTime().toString(u"hh:mm:ss"_s);
    lines.prepend(u"Sessions at %1 (Ctrl-C ends this)"_s.arg(time));
    if (const int height = Console::outputHeight(); height > 1) {
        lines = lines.first(std::min<qsizetype>(lines.size(), height - 1));
    }
    console.print(u"\x1b[H\x1b[J"_s + lines.join(u'\n') + u'\n');
}

void printChanges(Console &console, const SessionList &before, const SessionList &after)
{
    for (const SessionChange &change : sessionChanges(before, after)) {
        console.printJson(change.toJson());
    }
}

ExitCode follow(ClientContext &context, Failure *failure)
{
    SessionFollower follower(&context, kNoDeadline);
    SessionList shown;
    for (;;) {
        SessionList sessions;
        switch (follower.next(kNoDeadline, &sessions, failure)) {
        case SessionFollower::Event::List:
            if (Console::outputIsTerminal()) {
                drawTable(context.console, sessions);
            } else {
                printChanges(context.console, shown, sessions);
            }
            shown = sessions;
            if (!context.console.flush()) {
                return ExitCode::Done; // nobody reads on; the end of the program tells why
            }
            break;
        case SessionFollower::Event::Lost:
            context.console.note(u"The server has gone; waiting for one."_s);
            break;
        case SessionFollower::Event::TimedOut:
            break;
        case SessionFollower::Event::Failed:
            return context.console.report(*failure);
        }
    }
}

} // namespace

VerbText WatchVerb::text() const
{
    return {
        .name = u"watch"_s,
        .arguments = {},
        .summary = u"Show every change of the sessions as it happens."_s,
        .description =
            u"On a terminal, shows the table of sessions and keeps it up to date. Otherwise prints one JSON object\n"
            "per line and change, beginning with the sessions there are. Waits for a server that has gone."_s,
        .examples = {u"zarvoctl watch"_s, u"zarvoctl watch | jq --unbuffered .event"_s}};
}

QList<QCommandLineOption> WatchVerb::options() const
{
    return {noStartOption()};
}

ExitCode WatchVerb::run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    if (!context.connectToServer(startMode(line), &failure)) {
        return context.console.report(failure);
    }
    return follow(context, &failure);
}
