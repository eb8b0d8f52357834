// SPDX-License-Identifier: MIT
#include "client/server/serverstop.h"
#include "client/sessions/logtail.h"
#include "client/terminal/textwidth.h"
#include "client/verbs/verbs.h"
#include "support/json.h"

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** A server that stops waits for running requests, and a request may wait for its agent twice. */
constexpr auto kStopTimeout = 60s;

const char *stateName(ServerState state)
{
    switch (state) {
    case ServerState::Missing:
        return "missing";
    case ServerState::Starting:
        return "starting";
    case ServerState::Stale:
        return "stale";
    case ServerState::Unreadable:
        return "unreadable";
    case ServerState::Running:
        return "running";
    }
    return "";
}

ExitCode start(const QCommandLineParser &, ClientContext &context)
{
    Failure failure;
    if (!context.connectToServer(ServerConnector::Start::Allowed, &failure)) {
        return context.console.report(failure);
    }
    context.console.note(context.server.detail + u'.');
    return ExitCode::Done;
}

ExitCode stop(const QCommandLineParser &, ClientContext &context)
{
    const ServerStatus server = context.files.readStatus();
    Failure failure;
    if (server.state == ServerState::Missing || server.state == ServerState::Stale || server.pid == 0) {
        return context.console.report({ExitCode::NoServer, server.detail + u'.'});
    }
    if (!stopServer(server.pid, kStopTimeout, &failure)) {
        return context.console.report(failure);
    }
    context.console.note(u"The server has ended; its sessions go on."_s);
    return ExitCode::Done;
}

/** Asks a running server for its version and its sessions. */
bool askServer(ClientContext &context, QString *version, SessionList *sessions, Failure *failure)
{
    Json::Value answer;
    if (!context.connectToServer(ServerConnector::Start::Forbidden, failure) ||
        !context.client.call(u"Live.GetVersion"_s, {}, &answer, failure) || !context.listLocal(sessions, failure)) {
        return false;
    }
    *version = stringFromJson(answer);
    return true;
}

ExitCode status(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    QString version;
    SessionList sessions;
    const bool answers = askServer(context, &version, &sessions, &failure);
    if (failure.code == ExitCode::TimedOut) {
        failure.code = ExitCode::NoServer; // for this verb, too late means no answer
    }
    // As read for this connection, because by now the files may be those of another server.
    const ServerStatus &server = context.server;
    if (line.isSet(u"json"_s)) {
        Json::Value value(Json::objectValue);
        value["answers"] = answers;
        value["files"] = stateName(server.state);
        value["userPath"] = jsonString(context.files.userPath());
        if (answers) {
            value["pid"] = Json::Value::Int64(server.pid);
            value["port"] = server.port;
            value["version"] = jsonString(version);
            value["sessions"] = static_cast<int>(sessions.size());
        }
        context.console.printJson(value);
        return answers ? ExitCode::Done : failure.code;
    }
    if (!answers) {
        return context.console.report(failure);
    }
    context.console.printLine(u"process    %1"_s.arg(server.pid));
    context.console.printLine(u"port       %1"_s.arg(server.port));
    context.console.printLine(u"version    "_s + printable(version));
    context.console.printLine(u"sessions   %1"_s.arg(sessions.size()));
    context.console.printLine(u"user path  "_s + context.files.userPath());
    return ExitCode::Done;
}

ExitCode log(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    int lines = 0;
    if (!linesValue(line, &lines, &failure)) {
        return context.console.report(failure);
    }
    QString text;
    QString error;
    if (!readRotatedTail(context.files.logPath(), lines, &text, &error)) {
        return context.console.report({ExitCode::NoServer, error + u'.'});
    }
    if (!error.isEmpty()) {
        context.console.note(u"zarvoctl server: %1."_s.arg(error));
    }
    context.console.printForeign(text);
    return ExitCode::Done;
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    using Action = decltype(Verb::run);
    const QHash<QString, Action> actions = {
        {u"start"_s, start}, {u"stop"_s, stop}, {u"status"_s, status}, {u"log"_s, log}};
    const Action action = actions.value(firstArgument(line), nullptr);
    if (!action) {
        return context.console.report({ExitCode::Usage, u"server needs one of start, stop, status and log."_s});
    }
    return action(line, context);
}

} // namespace

Verb serverVerb()
{
    return {.name = u"server"_s,
            .arguments = u"start|stop|status|log"_s,
            .summary = u"Start, stop or check the server itself."_s,
            .description =
                u"start makes sure that a server runs. stop ends it; the sessions go on. status shows whether it\n"
                "answers; exit code 5 if not. log prints the end of its log."_s,
            .examples = {u"zarvoctl server status --json"_s, u"zarvoctl server log --lines 100"_s},
            .minArguments = 1,
            .maxArguments = 1,
            .options = {jsonOption(), linesOption()},
            .run = run};
}
