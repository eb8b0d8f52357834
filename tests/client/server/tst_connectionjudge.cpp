// SPDX-License-Identifier: MIT
#include "client/server/connectionjudge.h"
#include "tests/testmain.h"

#include <QTest>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

using Action = ConnectionJudge::Action;
using Observation = ConnectionJudge::Observation;

/** One thing that is seen, and what the judge makes of it. */
struct Step
{
    Observation seen;
    Action action = Action::Wait;
    ExitCode code = ExitCode::Done; ///< of a failure
    QString text;                   ///< of a failure
};

Observation at(std::chrono::milliseconds time, ServerState state = ServerState::Missing)
{
    return {.time = time,
            .server = {.state = state, .detail = u"Detail"_s},
            .isLaunching = false,
            .launchMessages = {},
            .isLate = false};
}

Observation launching(Observation seen)
{
    seen.isLaunching = true;
    return seen;
}

Observation saying(Observation seen, const QString &messages)
{
    seen.launchMessages = messages;
    return seen;
}

Observation late(Observation seen)
{
    seen.isLate = true;
    return seen;
}

Step waits(const Observation &seen)
{
    return {seen, Action::Wait, {}, {}};
}

Step starts(const Observation &seen)
{
    return {seen, Action::Start, {}, {}};
}

Step givesUp(const Observation &seen, ExitCode code, const QString &text)
{
    return {seen, Action::GiveUp, code, text};
}

} // namespace

/** Each case is one wait for a server: what is seen one after the other, and the verdict on each. */
class TestConnectionJudge : public QObject
{
    Q_OBJECT

private slots:
    void verdictsFollowFromWhatIsSeen_data()
    {
        QTest::addColumn<bool>("mayStart");
        QTest::addColumn<QList<Step>>("steps");
        const auto row = [](const char *name, bool mayStart, const QList<Step> &steps) {
            QTest::newRow(name) << mayStart << steps;
        };
        const QString other = u"Other servers."_s;
        const QString tooLate = u"The server did not start in time: Detail."_s;

        row("first start", true,
            {starts(at(0ms)), waits(launching(at(10ms))), waits(launching(at(20ms, ServerState::Starting))),
             waits(at(30ms, ServerState::Starting))});
        row("server that is starting beside the first start", true,
            {starts(at(0ms, ServerState::Starting)), waits(at(10ms, ServerState::Starting))});
        row("start that fails with a message", true,
            {starts(at(0ms)), waits(saying(launching(at(10ms)), u"No\n"_s)),
             givesUp(saying(at(20ms), u"No\n"_s), ExitCode::NoServer, u"The server does not start:\nNo"_s)});
        row("message of a start beside a server that is starting", true,
            {starts(at(0ms)), waits(saying(at(10ms, ServerState::Starting), u"No"_s))});
        row("server that refuses connections", true,
            {starts(at(0ms)), waits(at(10ms, ServerState::Running)), starts(at(1001ms, ServerState::Running))});

        row("restart after a silent start", true,
            {starts(at(0ms)), waits(at(10ms)), waits(at(1000ms)), starts(at(1001ms)), waits(at(2001ms)),
             starts(at(5001ms, ServerState::Running))});
        row("no restart while a start runs", true, {starts(at(0ms)), waits(launching(at(3s)))});
        row("no restart while a server is starting", true, {starts(at(0ms)), waits(at(3s, ServerState::Starting))});

        row("two silent starts and 5 seconds prove other files", true,
            {starts(at(0ms)), starts(at(1001ms)), givesUp(at(5000ms), ExitCode::NoServer, other)});
        row("two silent starts in less than 5 seconds are no proof", true,
            {starts(at(0ms)), starts(at(1001ms)), starts(at(4999ms)), waits(at(5999ms)),
             givesUp(at(6000ms), ExitCode::NoServer, other)});
        row("one silent start in 5 seconds is no proof", true,
            {starts(at(0ms)), starts(at(6s)), givesUp(at(7001ms), ExitCode::NoServer, other)});
        row("stale files prove other files as well", true,
            {starts(at(0ms, ServerState::Stale)), starts(at(1001ms, ServerState::Stale)),
             givesUp(at(5000ms, ServerState::Stale), ExitCode::NoServer, other)});
        row("files that show a server restart the count", true,
            {starts(at(0ms)), starts(at(1001ms)), waits(at(4s, ServerState::Starting)), starts(at(6s)),
             givesUp(at(9s), ExitCode::NoServer, other)});
        row("unreadable files show a server", true,
            {starts(at(0ms)), starts(at(1001ms)), starts(at(5s, ServerState::Unreadable)), starts(at(7s)),
             givesUp(at(10s), ExitCode::NoServer, other)});

        row("60 seconds", true,
            {starts(at(0ms)), waits(launching(at(59999ms))), givesUp(launching(at(60s)), ExitCode::NoServer, tooLate)});
        row("no restart after 60 seconds", true,
            {starts(at(0ms)), waits(at(58s, ServerState::Starting)),
             givesUp(at(60s, ServerState::Running), ExitCode::NoServer, tooLate)});
        row("message after 60 seconds is still reported", true,
            {starts(at(0ms)),
             givesUp(saying(at(61s), u"No"_s), ExitCode::NoServer, u"The server does not start:\nNo"_s)});
        row("the user's deadline", true,
            {starts(at(0ms)), givesUp(late(launching(at(10ms))), ExitCode::TimedOut, tooLate)});

        row("no start: server that is starting", false,
            {waits(at(0ms, ServerState::Starting)), waits(at(59s, ServerState::Starting)),
             givesUp(at(60s, ServerState::Starting), ExitCode::NoServer, tooLate)});
        row("no start: server that has ended", false,
            {waits(at(0ms, ServerState::Starting)), givesUp(at(10ms), ExitCode::NoServer, u"Detail."_s)});
        row("no start: server that refuses connections", false,
            {waits(at(0ms, ServerState::Starting)),
             givesUp(at(10ms, ServerState::Running), ExitCode::NoServer, u"Detail."_s)});
        row("no start: the user's deadline", false,
            {givesUp(late(at(0ms, ServerState::Starting)), ExitCode::TimedOut, tooLate)});
    }
    void verdictsFollowFromWhatIsSeen()
    {
        QFETCH(bool, mayStart);
        QFETCH(QList<Step>, steps);
        ConnectionJudge judge(mayStart, [] { return u"Other servers."_s; });
        for (const Step &step : std::as_const(steps)) {
            const QByteArray time = QByteArray::number(qint64(step.seen.time.count()));
            const ConnectionJudge::Verdict verdict = judge.judge(step.seen);
            QVERIFY2(verdict.action == step.action, time.constData());
            QVERIFY2(verdict.failure.code == step.code, time.constData());
            QVERIFY2(verdict.failure.text == step.text, qPrintable(verdict.failure.text));
        }
    }

    void otherServersAreDescribedOnlyWhenTheyPreventTheStart()
    {
        int calls = 0;
        ConnectionJudge judge(true, [&calls] { return QString::number(++calls); });
        for (const std::chrono::milliseconds time : {0ms, 1001ms, 3000ms}) {
            QCOMPARE(judge.judge(at(time)).action, Action::Start);
            QCOMPARE(calls, 0);
        }
        QCOMPARE(judge.judge(at(6s)).failure.text, u"1"_s);
        QCOMPARE(calls, 1);
    }
};

ZARVO_TEST(TestConnectionJudge)
#include "tst_connectionjudge.moc"
