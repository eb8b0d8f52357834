// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "live/sessionstore.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/fakeprograms.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

/** Actions on several sessions at the same time. */
class TestConcurrentActions : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void concurrentStartsGetDifferentDisplays();
    void hangingAgentsTimeOutInParallel();

private:
    [[nodiscard]] int start(const QString &id);
    [[nodiscard]] QByteArray displayOf(const QString &id) const
    {
        return contentOf(sessionDirectory(root, id) + u"/display"_s);
    }

    std::unique_ptr<ReservedDisplays> displays;
    std::unique_ptr<QTemporaryDir> folder;
    QString root;
    std::unique_ptr<FakePrograms> programs;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionStore> store;
};

void TestConcurrentActions::init()
{
    logger = std::make_unique<CollectingLogger>();
    displays = std::make_unique<ReservedDisplays>(4);
    folder = std::make_unique<QTemporaryDir>();
    root = folder->filePath(u"sessions"_s);
    QVERIFY(QDir().mkdir(root));
    programs = std::make_unique<FakePrograms>();
}

void TestConcurrentActions::cleanup()
{
    store.reset();
    QCOMPARE(TEST_heldSessions(), 0);
    programs.reset();
    folder.reset();
    displays.reset();
    logger.reset();
}

int TestConcurrentActions::start(const QString &id)
{
    QString password;
    quint16 port = 0;
    return store->start(id, u"xterm"_s, u"1024x768"_s, password, port);
}

void TestConcurrentActions::concurrentStartsGetDifferentDisplays()
{
    // While xauth runs, only the registry knows that a display is taken.
    const QString goOn = programs->filePath(u"go_on"_s);
    programs->add(u"xauth"_s, u"until [ -e '%1' ]; do sleep 0.01; done\nexit 1"_s.arg(goOn));
    const quint16 first = displays->first();
    store = std::make_unique<SessionStore>(root, first, first + 2, QString());

    std::atomic<int> firstCode = SessionOk;
    std::atomic<int> secondCode = SessionOk;
    const BackgroundTask firstStart([&] { firstCode = start(testId(1)); });
    const bool isFirstOnItsWay = waitForFile(sessionDirectory(root, testId(1)) + u"/info"_s);
    const BackgroundTask secondStart([&] { secondCode = start(testId(2)); });
    const bool isSecondOnItsWay = waitForFile(sessionDirectory(root, testId(2)) + u"/info"_s);
    const int codeWithoutADisplay = start(testId(3));
    putFile(goOn, "");
    QVERIFY(firstStart.waitUntilDone());
    QVERIFY(secondStart.waitUntilDone());

    QVERIFY(isFirstOnItsWay);
    QVERIFY(isSecondOnItsWay);
    QCOMPARE(displayOf(testId(1)), QByteArray::number(first));
    QCOMPARE(displayOf(testId(2)), QByteArray::number(first + 1));
    QCOMPARE(codeWithoutADisplay, -89);
    QVERIFY(!QFile::exists(sessionDirectory(root, testId(3))));
    QCOMPARE(firstCode.load(), -80);
    QCOMPARE(secondCode.load(), -80);

    // Failed starts have released their displays.
    QCOMPARE(start(testId(3)), -80);
    QCOMPARE(displayOf(testId(3)), QByteArray::number(first));
    QCOMPARE(store->sessionIds(), QStringList());
}

void TestConcurrentActions::hangingAgentsTimeOutInParallel()
{
    const QString idle = u"{\"Clients\":0,\"Passwords\":[]}"_s;
    const QString connected = u"{\"Clients\":1,\"LastDisconnect\":\"2024-01-02T03:04:05\"}"_s;
    const quint16 display = displays->first();
    const LiveSession resumed(root, testId(1), display, idle);
    const LiveSession suspended(root, testId(2), display + 1, connected);
    const LiveSession terminated(root, testId(3), display + 2, idle);
    programs->add(u"xauth"_s, u"exit 0"_s);
    programs->add(u"start-agent"_s, agentScript(QString(), QString(), QString(), QString()));
    store = std::make_unique<SessionStore>(root, display + 3, displays->end(), QString());

    const std::vector<std::function<int()>> actions = {
        [this] {
            QString text;
            quint16 port = 0;
            return store->resume(testId(1), text, text, text, port);
        },
        [this] { return store->suspend(testId(2)); },
        [this] { return store->terminate(testId(3)); },
        [this] { return start(testId(4)); },
    };
    struct Outcome
    {
        int code = SessionOk;
        qint64 elapsed = 0;
    };
    std::vector<Outcome> outcomes(actions.size());
    {
        std::vector<std::unique_ptr<BackgroundTask>> tasks;
        for (size_t index = 0; index < actions.size(); ++index) {
            tasks.push_back(std::make_unique<BackgroundTask>([action = actions[index], outcome = &outcomes[index]] {
                QElapsedTimer timer;
                timer.start();
                outcome->code = action();
                outcome->elapsed = timer.elapsed();
            }));
        }
    }

    for (const Outcome &outcome : outcomes) {
        QCOMPARE(outcome.code, -77);
        QVERIFY2(outcome.elapsed >= 15000, qPrintable(QString::number(outcome.elapsed)));
        QVERIFY2(outcome.elapsed < 30000, "One waits for the other");
    }
    QCOMPARE(resumed.handledSignals(), QByteArray("USR1\n"));
    QCOMPARE(suspended.handledSignals(), QByteArray("USR2\n"));
    QCOMPARE(terminated.handledSignals(), QByteArray("TERM\n"));
    QCOMPARE(store->sessionIds(), QStringList({testId(1), testId(2), testId(3), testId(4)}));
    QCOMPARE(TEST_heldSessions(), 4);
    for (int number = 1; number <= 4; ++number) {
        QVERIFY(!store->isBusy(testId(number)));
    }
    QCOMPARE(logger->takeLines(), QStringList());
    endStartedAgent(sessionDirectory(root, testId(4)));
}

ZARVO_TEST(TestConcurrentActions)

#include "tst_concurrentactions.moc"
