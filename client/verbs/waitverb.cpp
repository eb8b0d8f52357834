// SPDX-License-Identifier: MIT
#include "client/sessions/sessionfollower.h"
#include "client/verbs/verbs.h"
#include "client/verbs/waitgoals.h"

#include <QElapsedTimer>

#include <algorithm>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** How long the server may be away: a restart takes seconds. */
constexpr auto kMaxServerAbsence = 15s;

/** How long a running server may take to answer, even with --timeout 0. */
constexpr auto kMinAnswerTime = 1s;

/** 11 days: longer than anyone waits, and timers count milliseconds in 32 bits. */
constexpr double kMaxSeconds = 1e6;

/** What to wait for. */
struct Goal
{
    std::optional<EntryState> state; ///< null: until the session has ended
    std::chrono::milliseconds timeout = kNoDeadline;
};

bool readGoal(const QCommandLineParser &line, Goal *goal, Failure *failure)
{
    const QString wanted = line.value(u"for"_s);
    if (!waitGoals().contains(wanted)) {
        return fail(failure, ExitCode::Usage, u"--for needs one of connected, suspended and ended."_s);
    }
    goal->state = stateFromName(wanted);
    if (!line.isSet(u"timeout"_s)) {
        return true;
    }
    bool isNumber = false;
    const double seconds = line.value(u"timeout"_s).toDouble(&isNumber);
    if (!isNumber || !(seconds >= 0 && seconds <= kMaxSeconds)) {
        return fail(failure, ExitCode::Usage, u"\"%1\" is not a number of seconds."_s.arg(line.value(u"timeout"_s)));
    }
    goal->timeout = std::chrono::milliseconds(static_cast<qint64>(seconds * 1000));
    return true;
}

/** The exit code of a wait that is over; null while it goes on. */
std::optional<ExitCode> judge(const SessionList &sessions, const SessionEntry &session, const Goal &goal)
{
    const auto found = std::find_if(sessions.begin(), sessions.end(), [&session](const SessionEntry &entry) {
        return entry.id == session.id && entry.location == session.location;
    });
    if (found == sessions.end()) {
        return goal.state ? ExitCode::Negative : ExitCode::Done;
    }
    return goal.state && found->state() == *goal.state ? std::optional(ExitCode::Done) : std::nullopt;
}

std::chrono::milliseconds remaining(const Goal &goal, const QElapsedTimer &elapsed)
{
    return goal.timeout < 0ms ? kNoDeadline
                              : std::max(0ms, goal.timeout - std::chrono::milliseconds(elapsed.elapsed()));
}

ExitCode follow(ClientContext &context, const SessionEntry &session, const Goal &goal, Failure *failure)
{
    SessionFollower follower(&context, kMaxServerAbsence);
    QElapsedTimer elapsed;
    elapsed.start();
    for (;;) {
        SessionList sessions;
        switch (follower.next(remaining(goal, elapsed), &sessions, failure)) {
        case SessionFollower::Event::List:
            if (const std::optional<ExitCode> verdict = judge(sessions, session, goal)) {
                failure->text = *verdict == ExitCode::Negative ? u"The session has ended."_s : QString();
                return failure->code = *verdict;
            }
            break;
        case SessionFollower::Event::Lost:
        case SessionFollower::Event::Woken:
            break;
        case SessionFollower::Event::TimedOut:
            failure->text = u"Timed out while waiting for the session."_s;
            return failure->code = ExitCode::TimedOut;
        case SessionFollower::Event::Failed:
            return failure->code;
        }
    }
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    Goal goal;
    SessionEntry session;
    if (!readGoal(line, &goal, &failure)) {
        return context.console.report(failure);
    }
    if (goal.timeout != kNoDeadline) {
        context.client.setDeadline(QDeadlineTimer(std::max<std::chrono::milliseconds>(goal.timeout, kMinAnswerTime)));
    }
    if (!context.connectToServer(startMode(line), &failure) ||
        !context.findLocal(firstArgument(line), &session, &failure)) {
        return context.console.report(failure);
    }
    follow(context, session, goal, &failure);
    return context.console.report(failure);
}

} // namespace

Verb waitVerb()
{
    return {
        .name = u"wait"_s,
        .arguments = u"[SESSION] --for STATE"_s,
        .summary = u"Wait until a session is connected, suspended or ended."_s,
        .description =
            u"Waits until a session is in a state. connected: a viewer is connected. suspended: no viewer is\n"
            "connected and no password is offered. ended: the session has ended. Exit code 1 when it ends instead."_s,
        .examples = {u"zarvoctl wait 3f2a --for ended"_s, u"zarvoctl wait --for connected --timeout 60 3f2a"_s},
        .maxArguments = 1,
        .options = {{u"for"_s, u"What to wait for: connected, suspended or ended."_s, u"STATE"_s},
                    {u"timeout"_s, u"Give up after S seconds. Default: never."_s, u"S"_s},
                    noStartOption()},
        .run = run};
}
