// SPDX-License-Identifier: MIT
#include "client/terminal/eventwait.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QTest>
#include <QTimer>

#include <chrono>

using namespace std::chrono_literals;

class TestEventWait : public QObject
{
    Q_OBJECT

private slots:
    void timeoutIsNeverShortened()
    {
        for (int i = 0; i < 20; ++i) {
            EventWait wait([] { return false; });
            QElapsedTimer timer;
            timer.start();
            QVERIFY(!wait.run(110ms));
            QVERIFY2(timer.elapsed() >= 110, qPrintable(QString::number(timer.elapsed())));
        }
    }

    void returnsAtOnceIfTheConditionHolds()
    {
        EventWait wait([] { return true; });
        QVERIFY(wait.run(0ms));
        QVERIFY(wait.run(kNoDeadline));
    }

    void wakeChecksTheConditionAgain()
    {
        int events = 0;
        EventWait wait([&events] { return events == 3; });
        QTimer timer;
        connect(&timer, &QTimer::timeout, wait.context(), [&wait, &events] {
            ++events;
            wait.wake();
        });
        timer.start(1ms);
        QVERIFY(wait.run(60s));
        QCOMPARE(events, 3);
    }
};

ZARVO_TEST(TestEventWait)
#include "tst_eventwait.moc"
