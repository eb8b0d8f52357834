// SPDX-License-Identifier: MIT
#include "client/sessions/sessiontable.h"
#include "client/terminal/progress.h"
#include "client/verbs/verbs.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

bool collect(const QCommandLineParser &line, ClientContext &context, SessionList *chosen, Failure *failure)
{
    if (line.isSet(u"all"_s)) {
        return context.listLocal(chosen, failure);
    }
    QStringList targets = line.positionalArguments();
    if (targets.isEmpty()) {
        targets.append(QString()); // means the only session
    }
    for (const QString &target : targets) {
        SessionEntry session;
        if (!context.findLocal(target, &session, failure)) {
            return false;
        }
        // Compare ids only: each target has a listing of its own, in which the rest of an entry may differ.
        if (std::none_of(chosen->begin(), chosen->end(), [&](const SessionEntry &e) { return e.id == session.id; })) {
            chosen->append(session);
        }
    }
    return true;
}

/** Asks the user on a terminal, unless --yes was given or the sessions were named. */
bool isConfirmed(const QCommandLineParser &line, ClientContext &context, const SessionList &chosen)
{
    const bool named = !line.positionalArguments().isEmpty();
    if (named || line.isSet(u"yes"_s) || !Console::inputIsTerminal() || chosen.isEmpty()) {
        return true;
    }
    context.console.note(sessionTable(chosen, {.legend = false, .localHost = localHostName()}).chopped(1));
    const QString question =
        chosen.size() == 1 ? u"End this session?"_s : u"End these %1 sessions?"_s.arg(chosen.size());
    return context.console.confirm(question);
}

/**
 * Sends all requests at once; the server serves them in turn.
 * @param ignoresEnded  whether a session that has ended since the listing is no failure
 */
ExitCode endAll(ClientContext &context, const SessionList &chosen, bool ignoresEnded)
{
    QList<int> requests;
    for (const SessionEntry &session : chosen) {
        requests.append(context.client.send(u"Live.Terminate"_s, jsonTexts({session.id})));
    }
    ExitCode code = ExitCode::Done;
    for (qsizetype i = 0; i < chosen.size(); ++i) {
        Json::Value ignored;
        Failure failure;
        if (!context.client.receive(requests[i], &ignored, &failure) &&
            !(ignoresEnded && failure.code == ExitCode::NoSuchSession)) {
            failure.text = u"%1: %2"_s.arg(chosen[i].id, failure.text);
            const ExitCode problem = context.console.report(failure);
            code = code == ExitCode::Done ? problem : code;
        }
    }
    return code;
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    SessionList chosen;
    if (line.isSet(u"all"_s) && !line.positionalArguments().isEmpty()) {
        return context.console.report({ExitCode::Usage, u"Use either --all or sessions, not both."_s});
    }
    if (!context.connectToServer(startMode(line), &failure) || !collect(line, context, &chosen, &failure)) {
        return context.console.report(failure);
    }
    if (!isConfirmed(line, context, chosen)) {
        context.console.note(u"No session was ended."_s);
        return ExitCode::Negative;
    }
    const Progress progress(u"Ending"_s);
    return endAll(context, chosen, line.isSet(u"all"_s));
}

} // namespace

Verb terminateVerb()
{
    return {
        .name = u"terminate"_s,
        .arguments = u"[SESSION…]"_s,
        .summary = u"End sessions and their programs."_s,
        .description =
            u"Ends sessions and all programs in them. When one of several sessions is not found, none is ended. Asks\n"
            "on a terminal before it ends sessions that were not named."_s,
        .examples = {u"zarvoctl terminate 3f2a 77c0"_s, u"zarvoctl terminate --all --yes"_s},
        .maxArguments = -1,
        .options = {{u"all"_s, u"End all sessions of this host."_s},
                    {{u"y"_s, u"yes"_s}, u"Do not ask."_s},
                    noStartOption()},
        .run = run};
}
