// SPDX-License-Identifier: MIT
#include "tests/testmain.h"
#include "workers/periodicworker.h"

#include <QElapsedTimer>
#include <QSemaphore>
#include <QTest>
#include <QTimer>

#include <atomic>
#include <functional>
#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class TestPeriodicWorker : public QObject
{
    Q_OBJECT

private slots:
    void nothingHappensBeforeTheStart();
    void workIsDoneOnTheThreadThatCreatedTheWorker();
    void workIsDoneRepeatedly();
    void firstTickComesAfterTheInterval();
    void ticksDoNotPileUpWhileTheirReceiverIsBusy();
    void ticksDoNotPileUpBehindSlowWork();
    void workGoesOnAfterSlowWork();
    void destructionEndsTheThread();
    void destructionEndsAThreadThatHasJustStarted();
    void destructionDropsAQueuedTick();
    void destructionWithItsParentEndsTheThread();
};

namespace {

/** A worker that runs a function of the test and counts how often. */
class CountingWorker final : public PeriodicWorker
{
public:
    explicit CountingWorker(
        std::chrono::milliseconds interval_, std::function<void()> work_ = [] {})
        : PeriodicWorker(interval_, nullptr)
        , work(std::move(work_))
    {
    }
    ~CountingWorker() override { stop(); }

    void doWork() override
    {
        ++count;
        work();
    }

    int count = 0;

private:
    const std::function<void()> work;
};

/** A thread with a timer like a worker's. It shows how many ticks a worker must have had. */
class Metronome final : public QThread
{
public:
    Metronome() { start(); }
    ~Metronome() override
    {
        quit();
        wait();
    }

    /** Blocks the calling thread for this many ticks of one millisecond. */
    void waitForTicks(int count)
    {
        ticks.acquire(ticks.available());
        ticks.acquire(count);
    }

protected:
    void run() override
    {
        QTimer timer;
        connect(&timer, &QTimer::timeout, &timer, [this] { ticks.release(); });
        timer.start(1ms);
        exec();
    }

private:
    QSemaphore ticks;
};

constexpr int kManyTicks = 50;
constexpr int kDeadlineMs = 20000;

} // namespace

void TestPeriodicWorker::nothingHappensBeforeTheStart()
{
    CountingWorker worker(1ms);
    Metronome metronome;
    metronome.waitForTicks(kManyTicks);
    QCoreApplication::processEvents();
    QCOMPARE(worker.count, 0);
    QVERIFY(!worker.isRunning());
}

void TestPeriodicWorker::workIsDoneOnTheThreadThatCreatedTheWorker()
{
    QThread *thread = nullptr;
    CountingWorker worker(1ms, [&] { thread = QThread::currentThread(); });
    worker.start();
    QTRY_VERIFY_WITH_TIMEOUT(worker.count > 0, kDeadlineMs);
    QCOMPARE(thread, QCoreApplication::instance()->thread());
    QCOMPARE(worker.thread(), QCoreApplication::instance()->thread());
}

void TestPeriodicWorker::workIsDoneRepeatedly()
{
    CountingWorker worker(1ms);
    worker.start();
    QTRY_VERIFY_WITH_TIMEOUT(worker.count >= 20, kDeadlineMs);
}

void TestPeriodicWorker::firstTickComesAfterTheInterval()
{
    constexpr auto interval = 200ms;
    QElapsedTimer timer;
    CountingWorker worker(interval);
    timer.start();
    worker.start();
    QTRY_VERIFY_WITH_TIMEOUT(worker.count > 0, kDeadlineMs);
    // A timer of the system may fire 5 % early.
    QVERIFY2(timer.elapsed() >= interval.count() * 9 / 10, qPrintable(QString::number(timer.elapsed())));
}

void TestPeriodicWorker::ticksDoNotPileUpWhileTheirReceiverIsBusy()
{
    Metronome metronome;
    CountingWorker worker(1ms);
    worker.start();
    QTRY_VERIFY_WITH_TIMEOUT(worker.count > 0, kDeadlineMs);

    // This thread processes no events meanwhile.
    const int before = worker.count;
    metronome.waitForTicks(kManyTicks);
    QCoreApplication::sendPostedEvents(&worker, QEvent::MetaCall);
    const int atOnce = worker.count - before;
    QVERIFY2(atOnce < kManyTicks / 2, qPrintable(u"%1 ticks at once"_s.arg(atOnce)));
    QTRY_VERIFY_WITH_TIMEOUT(worker.count > before, kDeadlineMs);
}

void TestPeriodicWorker::ticksDoNotPileUpBehindSlowWork()
{
    Metronome metronome;
    CountingWorker *worker = nullptr;
    int countAfterTheFirst = -1;
    const auto slowWork = [&] {
        if (worker->count == 1) {
            metronome.waitForTicks(kManyTicks);
            // This call is queued behind every tick that came during the work.
            QMetaObject::invokeMethod(
                worker, [&] { countAfterTheFirst = worker->count; }, Qt::QueuedConnection);
        }
    };
    CountingWorker slow(1ms, slowWork);
    worker = &slow;
    slow.start();
    QTRY_VERIFY_WITH_TIMEOUT(countAfterTheFirst != -1, kDeadlineMs);
    QCOMPARE(countAfterTheFirst, 1);
}

void TestPeriodicWorker::workGoesOnAfterSlowWork()
{
    Metronome metronome;
    CountingWorker worker(1ms, [&] { metronome.waitForTicks(5); });
    worker.start();
    QTRY_VERIFY_WITH_TIMEOUT(worker.count >= 5, kDeadlineMs);
}

void TestPeriodicWorker::destructionEndsTheThread()
{
    std::atomic<bool> hasEnded = false;
    int count = 0;
    {
        CountingWorker worker(1ms, [&] { ++count; });
        connect(
            &worker, &QThread::finished, &worker, [&] { hasEnded = true; }, Qt::DirectConnection);
        worker.start();
        QTRY_VERIFY_WITH_TIMEOUT(worker.count > 0, kDeadlineMs);
        QVERIFY(!hasEnded);
    }
    QVERIFY(hasEnded);
    const int last = count;
    Metronome().waitForTicks(kManyTicks);
    QCoreApplication::processEvents();
    QCOMPARE(count, last);
}

void TestPeriodicWorker::destructionEndsAThreadThatHasJustStarted()
{
    std::atomic<int> ended = 0;
    for (int round = 0; round < 200; ++round) {
        CountingWorker worker(1h);
        connect(
            &worker, &QThread::finished, &worker, [&] { ++ended; }, Qt::DirectConnection);
        worker.start();
    }
    QCOMPARE(ended, 200);
}

void TestPeriodicWorker::destructionDropsAQueuedTick()
{
    int count = 0;
    {
        Metronome metronome;
        CountingWorker worker(1ms, [&] { ++count; });
        worker.start();
        metronome.waitForTicks(kManyTicks);
    }
    QCoreApplication::processEvents();
    QCOMPARE(count, 0);
}

void TestPeriodicWorker::destructionWithItsParentEndsTheThread()
{
    std::atomic<bool> hasEnded = false;
    auto parent = std::make_unique<QObject>();
    auto *worker = new CountingWorker(1h);
    worker->setParent(parent.get());
    connect(
        worker, &QThread::finished, worker, [&] { hasEnded = true; }, Qt::DirectConnection);
    worker->start();
    parent.reset();
    QVERIFY(hasEnded);
}

ZARVO_TEST(TestPeriodicWorker)

#include "tst_periodicworker.moc"
