// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMutex>
#include <QMutexLocker>
#include <QSemaphore>
#include <QTest>
#include <QThreadPool>
#include <QTimer>

using namespace Qt::StringLiterals;

class TestIdleTimer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void armedTimerIsSingleShotAndLastsFiveMinutes();
    void secondArmingChangesNothing();
    void armingWhileSomethingIsHeldDoesNotStartTheTimer_data();
    void armingWhileSomethingIsHeldDoesNotStartTheTimer();
    void countingWorksBeforeArming();
    void timerRunsOnlyWhileNothingIsHeld_data();
    void timerRunsOnlyWhileNothingIsHeld();
    void lastReleaseRestartsTheFullTime();
    void otherThreadsCanHoldWhileAMutexIsHeld();
    void timeoutQuitsTheApplication();
    void holdKeepsTheApplicationRunning();
};

namespace {

constexpr int kPatienceMs = 30000;

/** Lets the timer do what was queued to it. Holds and releases queue its starts and stops before they return. */
void deliverCalls()
{
    QCoreApplication::sendPostedEvents();
}

/** "S" and "s" hold and release a session, "C" and "c" a connection. */
void apply(const QString &steps)
{
    for (const QChar step : steps) {
        switch (step.unicode()) {
        case u'S':
            holdSession();
            break;
        case u's':
            releaseSession();
            break;
        case u'C':
            holdConnection();
            break;
        case u'c':
            releaseConnection();
            break;
        default:
            qFatal("No such step");
        }
    }
}

} // namespace

void TestIdleTimer::init()
{
    QVERIFY(!TEST_idleTimer());
    QCOMPARE(TEST_heldSessions(), 0);
    QCOMPARE(TEST_heldConnections(), 0);
}

void TestIdleTimer::cleanup()
{
    while (TEST_heldSessions() > 0) {
        releaseSession();
    }
    while (TEST_heldConnections() > 0) {
        releaseConnection();
    }
    delete TEST_idleTimer();
}

void TestIdleTimer::armedTimerIsSingleShotAndLastsFiveMinutes()
{
    armIdleTimer();
    deliverCalls();
    const QTimer *timer = TEST_idleTimer();
    QVERIFY(timer);
    QVERIFY(timer->isActive());
    QVERIFY(timer->isSingleShot());
    QCOMPARE(timer->interval(), 300000);
    QCOMPARE(timer->thread(), QCoreApplication::instance()->thread());
}

void TestIdleTimer::secondArmingChangesNothing()
{
    armIdleTimer();
    deliverCalls();
    QTimer *timer = TEST_idleTimer();
    timer->stop();
    armIdleTimer();
    deliverCalls();
    QCOMPARE(TEST_idleTimer(), timer);
    QVERIFY(!timer->isActive());
}

void TestIdleTimer::armingWhileSomethingIsHeldDoesNotStartTheTimer_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("after");
    QTest::newRow("session") << u"S"_s << u"s"_s;
    QTest::newRow("connection") << u"C"_s << u"c"_s;
    QTest::newRow("both") << u"SC"_s << u"cs"_s;
    QTest::newRow("several") << u"SSCC"_s << u"cssc"_s;
}

void TestIdleTimer::armingWhileSomethingIsHeldDoesNotStartTheTimer()
{
    QFETCH(const QString, before);
    QFETCH(const QString, after);
    apply(before);
    armIdleTimer();
    deliverCalls();
    QVERIFY(TEST_idleTimer());
    QVERIFY(!TEST_idleTimer()->isActive());
    apply(after);
    deliverCalls();
    QVERIFY(TEST_idleTimer()->isActive());
    QCOMPARE(TEST_idleTimer()->interval(), 300000);
}

void TestIdleTimer::countingWorksBeforeArming()
{
    apply(u"SSsCCCc"_s);
    QVERIFY(!TEST_idleTimer());
    QCOMPARE(TEST_heldSessions(), 1);
    QCOMPARE(TEST_heldConnections(), 2);
}

void TestIdleTimer::timerRunsOnlyWhileNothingIsHeld_data()
{
    QTest::addColumn<QString>("steps");
    QTest::addColumn<bool>("runs");
    QTest::newRow("nothing") << u""_s << true;
    QTest::newRow("session") << u"S"_s << false;
    QTest::newRow("session come and gone") << u"Ss"_s << true;
    QTest::newRow("connection") << u"C"_s << false;
    QTest::newRow("connection come and gone") << u"Cc"_s << true;
    QTest::newRow("one of two sessions gone") << u"SSs"_s << false;
    QTest::newRow("two of two sessions gone") << u"SSss"_s << true;
    QTest::newRow("one of two connections gone") << u"CCc"_s << false;
    QTest::newRow("two of two connections gone") << u"CCcc"_s << true;
    QTest::newRow("last session gone, a connection left") << u"SCs"_s << false;
    QTest::newRow("last connection gone, a session left") << u"SCc"_s << false;
    QTest::newRow("session, then connection gone") << u"SCsc"_s << true;
    QTest::newRow("connection, then session gone") << u"SCcs"_s << true;
    QTest::newRow("gone and back") << u"SsS"_s << false;
    QTest::newRow("gone, and the other kind comes") << u"SsC"_s << false;
    QTest::newRow("gone, back and gone") << u"SsCcSs"_s << true;
}

void TestIdleTimer::timerRunsOnlyWhileNothingIsHeld()
{
    QFETCH(const QString, steps);
    QFETCH(const bool, runs);
    armIdleTimer();
    deliverCalls();
    apply(steps);
    deliverCalls();
    QCOMPARE(TEST_idleTimer()->isActive(), runs);
    QCOMPARE(TEST_heldSessions(), steps.count(u'S') - steps.count(u's'));
    QCOMPARE(TEST_heldConnections(), steps.count(u'C') - steps.count(u'c'));
}

void TestIdleTimer::lastReleaseRestartsTheFullTime()
{
    armIdleTimer();
    deliverCalls();
    // Wait for longer than timers are rounded by. Otherwise the remaining time could equal the full one.
    QTRY_VERIFY_WITH_TIMEOUT(TEST_idleTimer()->remainingTime() < 298000, kPatienceMs);
    apply(u"S"_s);
    deliverCalls();
    QVERIFY(!TEST_idleTimer()->isActive());
    QElapsedTimer sinceRelease;
    sinceRelease.start();
    apply(u"s"_s);
    deliverCalls();
    QVERIFY(TEST_idleTimer()->isActive());
    const int left = TEST_idleTimer()->remainingTime();
    QVERIFY(left + sinceRelease.elapsed() > 299000);
}

void TestIdleTimer::otherThreadsCanHoldWhileAMutexIsHeld()
{
    constexpr int kTasks = 8;
    constexpr int kRounds = 200;
    armIdleTimer();
    deliverCalls();
    QMutex registry; // a caller may hold one
    QThreadPool pool;
    pool.setMaxThreadCount(4);
    QSemaphore started;
    {
        // The main thread holds the mutex and does not run its event loop. A call that waited for either would never
        // return.
        const QMutexLocker locker(&registry);
        for (int task = 0; task < kTasks; ++task) {
            pool.start([&started, task] {
                started.release();
                for (int round = 0; round < kRounds; ++round) {
                    task % 2 == 0 ? holdSession() : holdConnection();
                    if (round > 0) {
                        task % 2 == 0 ? releaseSession() : releaseConnection();
                    }
                }
            });
        }
        QVERIFY(pool.waitForDone(kPatienceMs));
        QCOMPARE(started.available(), kTasks);
    }
    QCOMPARE(TEST_heldSessions(), kTasks / 2);
    QCOMPARE(TEST_heldConnections(), kTasks / 2);

    for (int task = 0; task < kTasks; ++task) {
        pool.start([&registry, task] {
            const QMutexLocker locker(&registry);
            task % 2 == 0 ? releaseSession() : releaseConnection();
        });
    }
    for (int round = 0; round < kRounds; ++round) { // now main waits for the mutex of a pool thread
        const QMutexLocker locker(&registry);
        holdSession();
        releaseSession();
    }
    QVERIFY(pool.waitForDone(kPatienceMs));
    QCOMPARE(TEST_heldSessions(), 0);
    QCOMPARE(TEST_heldConnections(), 0);
    deliverCalls();
    QVERIFY(TEST_idleTimer()->isActive());
}

void TestIdleTimer::timeoutQuitsTheApplication()
{
    armIdleTimer();
    deliverCalls();
    TEST_idleTimer()->start(1); // instead of five minutes
    QTimer::singleShot(kPatienceMs, this, [] { QCoreApplication::exit(99); });
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(!TEST_idleTimer()->isActive());
}

void TestIdleTimer::holdKeepsTheApplicationRunning()
{
    armIdleTimer();
    deliverCalls();
    TEST_idleTimer()->setInterval(0);
    holdConnection();
    QTimer::singleShot(100, this, [] { QCoreApplication::exit(5); });
    QCOMPARE(QCoreApplication::exec(), 5);
    releaseConnection();
    QTimer::singleShot(kPatienceMs, this, [] { QCoreApplication::exit(99); });
    QCOMPARE(QCoreApplication::exec(), 0);
}

ZARVO_TEST(TestIdleTimer)

#include "tst_idletimer.moc"
