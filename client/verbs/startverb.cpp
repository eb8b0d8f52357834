// SPDX-License-Identifier: MIT
#include "client/reach/showing.h"
#include "client/reach/viewer.h"
#include "client/sessions/connectionoffer.h"
#include "client/sessions/sessionstarter.h"
#include "client/verbs/verbs.h"

using namespace Qt::StringLiterals;

namespace {

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    ConnectionOffer offer;
    const bool connects = line.isSet(u"connect"_s);
    Viewer viewer;
    // Look for the viewer first, because without one the session would wait in vain.
    if (!checkStart(line.positionalArguments(), line.value(u"geometry"_s), &failure) ||
        (connects && !viewer.find(&failure)) || !context.connectToServer(startMode(line), &failure) ||
        !startNewSession(context, line.positionalArguments(), line.value(u"geometry"_s), &offer, &failure)) {
        return context.console.report(failure);
    }
    offer.print(context.console, line.isSet(u"json"_s));
    if (connects &&
        (!context.console.flush() || !showStarted(viewer, context.files.sessionDirectory(offer.id), offer, &failure))) {
        return context.console.report(failure);
    }
    return ExitCode::Done;
}

} // namespace

Verb startVerb()
{
    return {
        .name = u"start"_s,
        .arguments = u"[--] COMMAND…"_s,
        .summary = u"Start a session of a command."_s,
        .description =
            u"Starts a session in which COMMAND runs, and prints its id, its port and the password that a viewer\n"
            "needs. Several words are passed on unchanged; a single word is a command line for the shell."_s,
        .examples = {u"zarvoctl start --geometry 1920x1080 -- startxfce4"_s,
                     u"zarvoctl start --geometry rootless --connect xterm -e top"_s},
        .minArguments = 1,
        .maxArguments = -1,
        .endsWithCommand = true,
        .options = {geometryOption(), {u"connect"_s, u"Run a viewer on it at once."_s}, jsonOption(), noStartOption()},
        .run = run};
}
