// SPDX-License-Identifier: MIT
#include "client/server/connectionjudge.h"

#include <utility>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** A first start makes a key, which takes seconds on a slow machine. */
constexpr auto kStartTimeout = 60s;

/**
 * A start ends at once and without a message while another server of the same user runs. If that server was about to
 * end, nothing follows, so a new start is due after this time.
 */
constexpr auto kRestartInterval = 1s;

/**
 * A server that starts writes its files well within this time, and a server that ends exits within it. So a server with
 * other files prevents the starts if kSilentStarts of them have ended without a message and no file has shown a server
 * for this time.
 */
constexpr auto kUnseenTime = 5s;
constexpr int kSilentStarts = 2;

ConnectionJudge::Verdict giveUp(ExitCode code, const QString &text)
{
    return {ConnectionJudge::Action::GiveUp, {code, text}};
}

} // namespace

ConnectionJudge::ConnectionJudge(bool mayStart_, std::function<QString()> describeOtherServers_)
    : mayStart(mayStart_)
    , describeOtherServers(std::move(describeOtherServers_))
{
}

ConnectionJudge::Verdict ConnectionJudge::judge(const Observation &seen)
{
    if (mayStart && !hasStarted) {
        return startAt(seen.time);
    }
    const Verdict verdict = judgeStarts(seen);
    if (verdict.action != Action::GiveUp && (seen.isLate || seen.time >= kStartTimeout)) {
        return giveUp(seen.isLate ? ExitCode::TimedOut : ExitCode::NoServer,
                      u"The server did not start in time: %1."_s.arg(seen.server.detail));
    }
    return verdict;
}

ConnectionJudge::Verdict ConnectionJudge::judgeStarts(const Observation &seen)
{
    if (seen.server.mayRun()) {
        silentStarts = 0;
        lastSeen = seen.time;
    }
    if (seen.isLaunching || seen.server.state == ServerState::Starting) {
        return {};
    }
    if (!mayStart) {
        return giveUp(ExitCode::NoServer, seen.server.detail + u'.'); // the server that was starting has ended
    }
    if (!seen.launchMessages.isEmpty()) {
        return giveUp(ExitCode::NoServer, u"The server does not start:\n%1"_s.arg(seen.launchMessages.trimmed()));
    }
    if (seen.time - lastStart <= kRestartInterval) {
        return {};
    }
    ++silentStarts;
    return isOtherServerProved(seen.time) ? giveUp(ExitCode::NoServer, describeOtherServers()) : startAt(seen.time);
}

ConnectionJudge::Verdict ConnectionJudge::startAt(std::chrono::milliseconds time)
{
    hasStarted = true;
    lastStart = time;
    return {Action::Start, {}};
}

bool ConnectionJudge::isOtherServerProved(std::chrono::milliseconds time) const
{
    return silentStarts >= kSilentStarts && time - lastSeen >= kUnseenTime;
}
