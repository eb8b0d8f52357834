// SPDX-License-Identifier: MIT
#include "client/sessions/sessionfollower.h"

#include "client/terminal/eventwait.h"

#include <QElapsedTimer>

#include <utility>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** Between two attempts to reconnect. */
constexpr auto kRetryInterval = 250ms;

/** Bounds the lists that wait for a slow reader. Older ones are dropped, because each list is complete. */
constexpr qsizetype kMaxLists = 64;

} // namespace

SessionFollower::SessionFollower(ClientContext *context_, std::chrono::milliseconds patience_, QObject *parent)
    : QObject(parent)
    , context(context_)
    , patience(patience_)
{
    connect(&context->client, &RpcClient::sessionsUpdated, this, &SessionFollower::Client_sessionsUpdated);
}

void SessionFollower::Client_sessionsUpdated(const Json::Value &value)
{
    lists.append(entriesFromJson(value));
    if (lists.size() > kMaxLists) {
        lists.removeFirst();
    }
}

void SessionFollower::wake()
{
    isWoken = true;
    emit woken();
}

SessionFollower::Event SessionFollower::next(std::chrono::milliseconds timeout, SessionList *sessions, Failure *failure)
{
    RpcClient &client = context->client;
    if (!client.isConnected()) {
        hasFirstList = false;
        if (!hasReportedLoss) {
            hasReportedLoss = true;
            return Event::Lost;
        }
        if (!reconnect(timeout, failure)) {
            if (std::exchange(isWoken, false)) {
                return Event::Woken;
            }
            return failure->code == ExitCode::TimedOut ? Event::TimedOut : Event::Failed;
        }
        hasReportedLoss = false;
    }
    if (!hasFirstList) {
        return takeFirstList(sessions, failure);
    }
    EventWait wait([this, &client] { return !lists.isEmpty() || !client.isConnected() || isWoken; });
    connect(this, &SessionFollower::woken, wait.context(), [&wait] { wait.wake(); });
    connect(&client, &RpcClient::sessionsUpdated, wait.context(), [&wait] { wait.wake(); });
    connect(&client, &RpcClient::progressed, wait.context(), [&wait] { wait.wake(); });
    if (!wait.run(timeout)) {
        return Event::TimedOut;
    }
    if (std::exchange(isWoken, false)) {
        return Event::Woken;
    }
    if (lists.isEmpty()) {
        hasReportedLoss = true;
        return Event::Lost;
    }
    *sessions = lists.takeFirst();
    return Event::List;
}

SessionFollower::Event SessionFollower::takeFirstList(SessionList *sessions, Failure *failure)
{
    SessionList listed;
    if (!context->listAll(&listed, failure)) {
        if (context->client.isConnected()) {
            return Event::Failed;
        }
        hasReportedLoss = true;
        return Event::Lost;
    }
    hasFirstList = true;
    // A list that was pushed meanwhile may be older or newer than the answer. The pushed one is safe to take, because
    // the server pushes every newer list as well.
    *sessions = lists.isEmpty() ? listed : lists.takeLast();
    lists.clear();
    return Event::List;
}

bool SessionFollower::reconnect(std::chrono::milliseconds timeout, Failure *failure)
{
    const auto isOver = [](std::chrono::milliseconds limit, const QElapsedTimer &since) {
        return limit >= 0ms && std::chrono::milliseconds(since.elapsed()) >= limit;
    };
    QElapsedTimer elapsed;
    elapsed.start();
    lists.clear();
    while (!context->connectToServer(ServerConnector::Start::Forbidden, failure)) {
        if (isWoken || failure->code != ExitCode::NoServer || isOver(patience, elapsed)) {
            return false;
        }
        if (isOver(timeout, elapsed)) {
            failure->code = ExitCode::TimedOut;
            return false;
        }
        EventWait pause([this] { return isWoken; });
        connect(this, &SessionFollower::woken, pause.context(), [&pause] { pause.wake(); });
        [[maybe_unused]] const bool isEnded = pause.run(kRetryInterval);
    }
    return true;
}
