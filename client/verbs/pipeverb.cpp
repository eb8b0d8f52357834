// SPDX-License-Identifier: MIT
#include "client/reach/streampump.h"
#include "client/reach/viewersocket.h"
#include "client/sessions/offering.h"
#include "client/sessions/sessiondirectories.h"
#include "client/terminal/eventwait.h"
#include "client/verbs/verbs.h"

#include <csignal>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** Joins standard input and output with @p connection until the session, or the reader of the output, ends it. */
ExitCode carry(int connection, Failure *failure)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader that has gone is seen by the failed write
    StreamPump pump(STDIN_FILENO, STDOUT_FILENO, connection);
    EventWait wait([&pump] { return pump.isOver(); });
    QObject::connect(&pump, &StreamPump::finished, wait.context(), [&wait] { wait.wake(); });
    pump.start();
    [[maybe_unused]] const bool isOver = wait.run(kNoDeadline);
    if (const int error = pump.outputError(); error != 0) {
        fail(failure, ExitCode::Negative, u"Failed to write to standard output: %1."_s.arg(qt_error_string(error)));
    }
    return failure->code;
}

bool connectTo(ClientContext &context, const SessionEntry &session, int *connection, Failure *failure)
{
    const QString directory = context.files.sessionDirectory(session.id);
    ViewerSocket socket;
    if (!socket.open(directory, failure)) {
        *failure = fileFailure(directory, *failure);
        return false;
    }
    return !socket.hasViewers(session.state() == EntryState::Connected) ? socket.connect(connection, failure)
                                                                        : failConnected(failure);
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    SessionEntry session;
    int connection = -1;
    if (Console::outputIsTerminal()) {
        fail(&failure, ExitCode::Usage, u"Standard output is a terminal, which cannot show a session."_s);
        return context.console.report(failure);
    }
    if (!context.connectToServer(startMode(line), &failure) ||
        !context.findLocal(firstArgument(line), &session, &failure) ||
        !connectTo(context, session, &connection, &failure)) {
        return context.console.report(failure);
    }
    carry(connection, &failure);
    ::close(connection);
    return context.console.report(failure);
}

} // namespace

Verb pipeVerb()
{
    return {
        .name = u"pipe"_s,
        .arguments = u"[SESSION]"_s,
        .summary = u"Join standard input and output to a session, for a viewer elsewhere."_s,
        .description =
            u"Carries the bytes between a viewer (RFB) and a session of this host, without a password: from standard\n"
            "input and to standard output. zarvoctl connect runs it through ssh on another host; any other program\n"
            "that runs commands on a host can carry a session like that. Ends with the session's connection."_s,
        .examples = {u"zarvoctl pipe 3f2a"_s,
                     u"socat UNIX-LISTEN:session.sock,mode=600 EXEC:'ssh -T far zarvoctl pipe 3f2a'"_s},
        .maxArguments = 1,
        .options = {noStartOption()},
        .run = run};
}
