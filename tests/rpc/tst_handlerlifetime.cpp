// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "tests/rpc/handlertest.h"
#include "tests/testmain.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>

using namespace Qt::StringLiterals;

class TestHandlerLifetime : public HandlerTest
{
    Q_OBJECT

private slots:
    void handlerHoldsTheIdleTimer();
    void destructionDeletesTheMethods();
    void destructionWaitsForTheRunningRequest();
    void requestsOfOtherConnectionsRunAtTheSameTime();
    void retireDeletesTheDeviceLater();
    void retireWaitsForTheRunningRequestWithoutBlocking();
};

void TestHandlerLifetime::handlerHoldsTheIdleTimer()
{
    QCOMPARE(TEST_heldConnections(), 1);
    FakeDevice otherDevice;
    auto other = std::make_unique<Handler>(&otherDevice, QMap<QString, RpcMethod *>(), nullptr);
    QCOMPARE(TEST_heldConnections(), 2);
    otherDevice.close();
    QCOMPARE(TEST_heldConnections(), 2);
    other.reset();
    QCOMPARE(TEST_heldConnections(), 1);
    handler.reset();
    QCOMPARE(TEST_heldConnections(), 0);
    QCOMPARE(TEST_heldSessions(), 0);
}

void TestHandlerLifetime::destructionDeletesTheMethods()
{
    waitForEcho("1");
    QCOMPARE(control->deleted, 0);
    handler.reset();
    QCOMPARE(control->deleted, kFakeMethods);
}

void TestHandlerLifetime::destructionWaitsForTheRunningRequest()
{
    device->feed(request("block", "1"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    const std::unique_ptr<QThread> releaser(QThread::create([this] {
        QThread::msleep(100); // so that a destructor that does not wait finishes first
        control->go.release();
    }));
    releaser->start();
    handler.reset();
    QCOMPARE(control->finished, 1);
    QCOMPARE(control->deleted, kFakeMethods);
    QCOMPARE(control->deletedWhileRunning, 0);
    QCOMPARE(TEST_heldConnections(), 0);
    QVERIFY(releaser->wait(kPatienceMs));
    deliverEvents();
    QCOMPARE(device->output(), QByteArray());
}

void TestHandlerLifetime::requestsOfOtherConnectionsRunAtTheSameTime()
{
    FakeDevice otherDevice;
    const Handler other(&otherDevice, fakeMethods(control.get()), nullptr);
    device->feed(request("block", "1"));
    otherDevice.feed(request("block", "2"));
    QTRY_COMPARE_WITH_TIMEOUT(control->together, 2, kPatienceMs);
    control->go.release(2);
    QTRY_COMPARE_WITH_TIMEOUT(device->output(), answerFrame(success("1", "null")), kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(otherDevice.output(), answerFrame(success("2", "null")), kPatienceMs);
}

void TestHandlerLifetime::retireDeletesTheDeviceLater()
{
    QPointer<FakeDevice> owner = device.release();
    QPointer<Handler> child = handler.release();
    child->setParent(owner);
    child->retire();
    QVERIFY(owner); // not at once, because it may be emitting a signal
    owner->feed(request("echo", "1"));
    QCOMPARE(control->calls, 0);
    deliverEvents();
    QVERIFY(!owner);
    QVERIFY(!child);
    QCOMPARE(control->deleted, kFakeMethods);
    QCOMPARE(TEST_heldConnections(), 0);
}

void TestHandlerLifetime::retireWaitsForTheRunningRequestWithoutBlocking()
{
    QPointer<FakeDevice> owner = device.release();
    QPointer<Handler> child = handler.release();
    child->setParent(owner);
    owner->feed(request("block", "1") + request("echo", "2"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    child->retire(); // would never return if it waited
    child->retire(); // the second call changes nothing
    deliverEvents();
    QVERIFY(owner);
    QVERIFY(child);
    QCOMPARE(TEST_heldConnections(), 1);
    const auto history = owner->history();
    control->go.release();
    QSignalSpy destroyed(child, &QObject::destroyed);
    QVERIFY(destroyed.wait(kPatienceMs));
    QTRY_VERIFY_WITH_TIMEOUT(!owner, kPatienceMs);
    QCOMPARE(*history, QByteArrayList()); // the answer is not sent
    QCOMPARE(control->calls, 1);
    QCOMPARE(control->deleted, kFakeMethods);
    QCOMPARE(control->deletedWhileRunning, 0);
    QCOMPARE(TEST_heldConnections(), 0);
}

ZARVO_TEST(TestHandlerLifetime)

#include "tst_handlerlifetime.moc"
