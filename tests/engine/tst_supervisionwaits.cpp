// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "engine/supervision.h"
#include "tests/engine/supervisionfixture.h"
#include "tests/testmain.h"

#include <QElapsedTimer>

#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

using namespace Qt::StringLiterals;

using Wait = int (*)(Session *session, int timeoutMs);

class TestSupervisionWaits : public QObject, private SupervisionFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void everyOperationNeedsADirectory_data();
    void everyOperationNeedsADirectory();

    void waitEndsWhenItsConditionIsMet_data();
    void waitEndsWhenItsConditionIsMet();
    void otherChangesDoNotEndAWait_data();
    void otherChangesDoNotEndAWait();
    void passwordsChangeInEveryWay_data();
    void passwordsChangeInEveryWay();
    void waitWithoutTimeRefreshesOnce_data();
    void waitWithoutTimeRefreshesOnce();
    void negativeTimeoutEndsOnTheEventAlone_data();
    void negativeTimeoutEndsOnTheEventAlone();
    void timeoutEndsAWait_data();
    void timeoutEndsAWait();
    void exitEndsAWaitForAChange_data();
    void exitEndsAWaitForAChange();
    void lastLogLineCountsBeforeTheExit();
    void waitForExitSeesTheEnd();
    void failedRefreshEndsAWait_data();
    void failedRefreshEndsAWait();
    void stepsAreNoLongerThanTheTimeLeft();
    void stepsWithoutALimitHaveTheirFullLength();
    void interruptedSleepGoesOn();
    void failedSleepEndsAWait();
};

namespace {

constexpr qint64 kMillisecond = 1000000;
/** Longer than any test runs, so that no wait ends because of it. */
constexpr int kLongTimeoutMs = 100000;

const char kQuiet[] = R"({"Clients": 0, "Passwords": []})";
const char kStarted[] = R"({"Started": "2024-05-06T11:08:09"})";
const char kConnected[] = R"({"LastConnect": "2024-05-06T12:08:09"})";
const char kDisconnected[] = R"({"LastDisconnect": "2024-05-06T13:08:09"})";
const char kPassword[] = R"({"Passwords": ["pw"]})";

/** One of the waits for a change, with a state that ends it. */
struct ChangeWait
{
    const char *name;
    Wait wait;
    QByteArray state;
};

const std::vector<ChangeWait> &changeWaits()
{
    static const std::vector<ChangeWait> all = {
        {"started", waitForStarted, kStarted},
        {"connect", waitForConnect, kConnected},
        {"disconnect", waitForDisconnect, kDisconnected},
        {"passwords", waitForPasswordsChange, kPassword},
    };
    return all;
}

/** Runs an action on a thread of its own once an agent was asked this often. The destructor waits for the thread. */
class AfterCalls final
{
public:
    AfterCalls(const AgentSocket &socket, int calls, std::function<void()> action)
        : thread([this, &socket, calls, action = std::move(action)] {
            while (!ending && socket.calls() < calls) {
                std::this_thread::yield();
            }
            if (!ending) {
                action();
            }
        })
    {
    }
    ~AfterCalls()
    {
        ending = true;
        thread.join();
    }
    Q_DISABLE_COPY_MOVE(AfterCalls)

private:
    std::atomic<bool> ending = false;
    std::thread thread;
};

} // namespace

void TestSupervisionWaits::everyOperationNeedsADirectory_data()
{
    QTest::addColumn<Wait>("operation");
    QTest::newRow("refresh") << Wait([](Session *session, int) { return refreshSession(session); });
    QTest::newRow("exit") << Wait(waitForExit);
    QTest::newRow("signal") << Wait([](Session *session, int) { return signalSession(*session, 0); });
    for (const ChangeWait &change : changeWaits()) {
        QTest::newRow(change.name) << change.wait;
    }
}

void TestSupervisionWaits::everyOperationNeedsADirectory()
{
    QFETCH(Wait, operation);
    const AgentSocket socket(socketPath(), kStarted);
    // With every timeout, and whatever else the record says.
    for (const int timeoutMs : {-1, 0, kLongTimeoutMs}) {
        Session session = sessionOf(::getpid());
        session.directory.clear();
        session.exited = true;
        QCOMPARE(operation(&session, timeoutMs), NotInitialized);
        QVERIFY(session.started.isNull());
        QCOMPARE(session.broken, false);
    }
    QCOMPARE(socket.calls(), 0);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervisionWaits::waitEndsWhenItsConditionIsMet_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::addColumn<QByteArray>("state");
    for (const ChangeWait &change : changeWaits()) {
        QTest::newRow(change.name) << change.wait << change.state;
    }
}

void TestSupervisionWaits::waitEndsWhenItsConditionIsMet()
{
    QFETCH(Wait, wait);
    QFETCH(QByteArray, state);
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    socket.setStates({kQuiet, kQuiet, state});
    Session session = sessionOf(agent.pid());
    QCOMPARE(wait(&session, kLongTimeoutMs), 0);
    QCOMPARE(socket.calls(), 3);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervisionWaits::otherChangesDoNotEndAWait_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::addColumn<QList<QByteArray>>("states");
    for (const ChangeWait &change : changeWaits()) {
        QList<QByteArray> states;
        for (const ChangeWait &other : changeWaits()) {
            if (other.wait != change.wait) {
                states.append(other.state);
            }
        }
        QTest::newRow(change.name) << change.wait << states + QList<QByteArray>{change.state};
    }
}

void TestSupervisionWaits::otherChangesDoNotEndAWait()
{
    QFETCH(Wait, wait);
    QFETCH(QList<QByteArray>, states);
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    socket.setStates(states);
    Session session = sessionOf(agent.pid());
    QCOMPARE(wait(&session, kLongTimeoutMs), 0);
    QCOMPARE(socket.calls(), 4);
}

void TestSupervisionWaits::passwordsChangeInEveryWay_data()
{
    QTest::addColumn<QByteArray>("passwords");
    QTest::newRow("none left") << QByteArray("[]");
    QTest::newRow("fewer") << QByteArray(R"(["a", "b"])");
    QTest::newRow("more") << QByteArray(R"(["a", "b", "c", "d"])");
    QTest::newRow("first differs") << QByteArray(R"(["x", "b", "c"])");
    QTest::newRow("middle differs") << QByteArray(R"(["a", "x", "c"])");
    QTest::newRow("last differs") << QByteArray(R"(["a", "b", "x"])");
    QTest::newRow("another order") << QByteArray(R"(["a", "c", "b"])");
}

void TestSupervisionWaits::passwordsChangeInEveryWay()
{
    QFETCH(QByteArray, passwords);
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    const QByteArray same = R"({"Passwords": ["a", "b", "c"]})";
    socket.setStates({same, same, "{\"Passwords\": " + passwords + '}'});
    Session session = sessionOf(agent.pid());
    session.passwords = QStringList({u"a"_s, u"b"_s, u"c"_s});
    QCOMPARE(waitForPasswordsChange(&session, kLongTimeoutMs), 0);
    QCOMPARE(socket.calls(), 3);
}

void TestSupervisionWaits::waitWithoutTimeRefreshesOnce_data()
{
    waitEndsWhenItsConditionIsMet_data();
}

void TestSupervisionWaits::waitWithoutTimeRefreshesOnce()
{
    QFETCH(Wait, wait);
    QFETCH(QByteArray, state);
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath(), kQuiet);
    Session session = sessionOf(agent.pid());
    QCOMPARE(wait(&session, 0), TimedOut);
    QCOMPARE(socket.calls(), 1);
    socket.setState(state);
    QCOMPARE(wait(&session, 0), 0);
    QCOMPARE(socket.calls(), 2);
    // A wait compares with the state at its own beginning, not with that of an earlier one.
    QCOMPARE(wait(&session, 0), TimedOut);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervisionWaits::negativeTimeoutEndsOnTheEventAlone_data()
{
    waitEndsWhenItsConditionIsMet_data();
}

void TestSupervisionWaits::negativeTimeoutEndsOnTheEventAlone()
{
    QFETCH(Wait, wait);
    QFETCH(QByteArray, state);
    const AgentProcess agent(directory);
    for (const int timeoutMs : {-1, std::numeric_limits<int>::min()}) {
        AgentSocket socket(socketPath());
        socket.setStates({kQuiet, kQuiet, kQuiet, state});
        Session session = sessionOf(agent.pid());
        QCOMPARE(wait(&session, timeoutMs), 0);
        QCOMPARE(socket.calls(), 4);
    }
}

void TestSupervisionWaits::timeoutEndsAWait_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::newRow("exit") << Wait(waitForExit);
    for (const ChangeWait &change : changeWaits()) {
        QTest::newRow(change.name) << change.wait;
    }
}

void TestSupervisionWaits::timeoutEndsAWait()
{
    QFETCH(Wait, wait);
    const AgentProcess agent(directory);
    const AgentSocket socket(socketPath(), kQuiet);
    Session session = sessionOf(agent.pid());
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(wait(&session, 120), TimedOut);
    QVERIFY(timer.elapsed() >= 120);
    // One more refresh than steps, because the last sleep may end just before the timeout.
    QVERIFY2(socket.calls() <= 5, qPrintable(QString::number(socket.calls())));
    QCOMPARE(session.exited, false);
    QCOMPARE(session.broken, false);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervisionWaits::exitEndsAWaitForAChange_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::addColumn<int>("timeoutMs");
    for (const ChangeWait &change : changeWaits()) {
        QTest::newRow(change.name) << change.wait << kLongTimeoutMs;
    }
    QTest::newRow("without a limit") << Wait(waitForStarted) << -1;
}

void TestSupervisionWaits::exitEndsAWaitForAChange()
{
    QFETCH(Wait, wait);
    QFETCH(int, timeoutMs);
    const AgentProcess agent(directory);
    const AgentSocket socket(socketPath(), kQuiet);
    const AfterCalls end(socket, 2, [&] {
        putFile(file(u"server_exit"_s), "3");
        agent.endUnnoticed();
    });
    Session session = sessionOf(agent.pid());
    QCOMPARE(wait(&session, timeoutMs), UnknownError);
    QVERIFY(socket.calls() >= 2);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, 3);
    QCOMPARE(session.broken, false);

    // The exit is reported rather than the timeout, also without any time.
    QCOMPARE(wait(&session, 0), UnknownError);
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervisionWaits::lastLogLineCountsBeforeTheExit()
{
    putFile(file(u"server_exit"_s), "0");
    putFile(file(u"server_log"_s), "RDP initialized at '2024-05-06T11:08:09'\n");
    Session session = sessionOf(0);
    QCOMPARE(waitForStarted(&session, kLongTimeoutMs), 0);
    QCOMPARE(session.exited, true);
    QCOMPARE(waitForStarted(&session, kLongTimeoutMs), UnknownError);
}

void TestSupervisionWaits::waitForExitSeesTheEnd()
{
    for (const int timeoutMs : {kLongTimeoutMs, -1}) {
        const AgentProcess agent(directory);
        const AgentSocket socket(socketPath(), kQuiet);
        const AfterCalls end(socket, 2, [&] {
            putFile(file(u"server_exit"_s), "3");
            agent.endUnnoticed();
        });
        Session session = sessionOf(agent.pid());
        QCOMPARE(waitForExit(&session, timeoutMs), 0);
        QVERIFY(socket.calls() >= 2);
        QCOMPARE(session.exited, true);
        QCOMPARE(session.exitCode, 3);
        QCOMPARE(waitForExit(&session, 0), 0);
    }
}

void TestSupervisionWaits::failedRefreshEndsAWait_data()
{
    timeoutEndsAWait_data();
}

void TestSupervisionWaits::failedRefreshEndsAWait()
{
    QFETCH(Wait, wait);
    for (const int timeoutMs : {kLongTimeoutMs, 0, -1}) {
        Session session = sessionOf(0);
        QCOMPARE(wait(&session, timeoutMs), ReadFailed);
        QCOMPARE(session.broken, true);
        QCOMPARE(logger->takeLines().size(), 1);
    }
}

void TestSupervisionWaits::stepsAreNoLongerThanTheTimeLeft()
{
    const AgentProcess agent(directory);
    for (const int timeoutMs : {1, 30, 50, 130}) {
        Session session = sessionOf(agent.pid());
        fault.sleepsInNs.clear();
        fault.recordSleeps = true;
        const int code = waitForExit(&session, timeoutMs);
        fault.recordSleeps = false;
        QCOMPARE(code, TimedOut);
        qint64 sum = 0;
        for (const qint64 step : fault.sleepsInNs) {
            QVERIFY2(step >= 0 && step <= 50 * kMillisecond, qPrintable(QString::number(step)));
            sum += step;
        }
        QVERIFY2(sum <= timeoutMs * kMillisecond, qPrintable(QString::number(sum)));
    }
}

void TestSupervisionWaits::stepsWithoutALimitHaveTheirFullLength()
{
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    socket.setStates({kQuiet, kQuiet, kQuiet, kStarted});
    Session session = sessionOf(agent.pid());
    fault.recordSleeps = true;
    QCOMPARE(waitForStarted(&session, -1), 0);
    fault.recordSleeps = false;
    QCOMPARE(fault.sleepsInNs, std::vector<qint64>(3, 50 * kMillisecond));
}

void TestSupervisionWaits::interruptedSleepGoesOn()
{
    const AgentProcess agent(directory);
    AgentSocket socket(socketPath());
    socket.setStates({kQuiet, kStarted});
    Session session = sessionOf(agent.pid());
    fault.recordSleeps = true;
    fault.sleepErrno = EINTR;
    QCOMPARE(waitForStarted(&session, -1), 0);
    fault.recordSleeps = false;
    QCOMPARE(socket.calls(), 2);
    QCOMPARE(fault.sleepsInNs, std::vector<qint64>({50 * kMillisecond, 25 * kMillisecond}));
    QCOMPARE(logger->takeLines(), QStringList());
}

void TestSupervisionWaits::failedSleepEndsAWait()
{
    const AgentProcess agent(directory);
    const AgentSocket socket(socketPath(), kQuiet);
    for (const Wait wait : {waitForExit, waitForStarted}) {
        Session session = sessionOf(agent.pid());
        const int calls = socket.calls();
        fault.sleepErrno = EINVAL;
        QCOMPARE(wait(&session, kLongTimeoutMs), UnknownError);
        QCOMPARE(socket.calls(), calls + 1);
        QCOMPARE(logger->takeLines(), QStringList{u"Warning: Failed to sleep: Invalid argument"_s});
    }
}

ZARVO_TEST(TestSupervisionWaits)

#include "tst_supervisionwaits.moc"
