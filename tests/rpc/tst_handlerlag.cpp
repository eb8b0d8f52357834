// SPDX-License-Identifier: MIT
#include "rpc/netstring.h"
#include "tests/rpc/handlertest.h"
#include "tests/testmain.h"

#include <QRegularExpression>
#include <QTest>
#include <QThreadPool>

using namespace Qt::StringLiterals;

class TestHandlerLag : public HandlerTest
{
    Q_OBJECT

private slots:
    void updateIsWrittenUnchanged();
    void updateIsWrittenBetweenAnswers();
    void updateOnAClosedDeviceIsDropped();
    void answerForAClosedDeviceIsDropped();
    void laggingPeerIsNotReadFrom_data();
    void laggingPeerIsNotReadFrom();
    void laggingPeerGetsOnlyTheNewestUpdate();
    void peerThatLagsAgainGetsTheNewestUpdate();
    void olderUpdateIsNotSentAfterANewerOne();
};

namespace {

constexpr qsizetype kMaxUnsent = 1024 * 1024;

} // namespace

void TestHandlerLag::updateIsWrittenUnchanged()
{
    handler->writeToDevice("any bytes\0 at all"_ba);
    QCOMPARE(device->output(), "any bytes\0 at all"_ba);
}

void TestHandlerLag::updateIsWrittenBetweenAnswers()
{
    const QByteArray update = encodeNetString("update");
    device->feed(request("block", "1") + request("block", "2"));
    QTRY_COMPARE_WITH_TIMEOUT(control->calls, 1, kPatienceMs);
    handler->writeToDevice(update);
    QCOMPARE(device->writes(), QByteArrayList{update}); // at once, although a request runs
    control->go.release();
    QTRY_COMPARE_WITH_TIMEOUT(control->calls, 2, kPatienceMs);
    handler->writeToDevice(update);
    control->go.release();
    QTRY_COMPARE_WITH_TIMEOUT(device->writes().size(), 4, kPatienceMs);
    QCOMPARE(device->writes(),
             (QByteArrayList{update, answerFrame(success("1", "null")), update, answerFrame(success("2", "null"))}));
}

void TestHandlerLag::updateOnAClosedDeviceIsDropped()
{
    device->close();
    handler->writeToDevice("update"_ba);
    device->open(QIODevice::ReadWrite | QIODevice::Unbuffered);
    deliverEvents();
    QCOMPARE(device->output(), QByteArray());
}

void TestHandlerLag::answerForAClosedDeviceIsDropped()
{
    device->feed(request("block", "1"));
    QTRY_COMPARE_WITH_TIMEOUT(control->running, 1, kPatienceMs);
    device->close();
    QTest::failOnWarning(QRegularExpression(u".*"_s)); // Qt warns of a write to a closed device
    control->go.release();
    QTRY_COMPARE_WITH_TIMEOUT(control->finished, 1, kPatienceMs);
    QThreadPool::globalInstance()->waitForDone();
    deliverEvents();
    QCOMPARE(device->output(), QByteArray());
}

void TestHandlerLag::laggingPeerIsNotReadFrom_data()
{
    QTest::addColumn<qsizetype>("unsent");
    QTest::addColumn<bool>("lags");
    QTest::newRow("nothing unsent") << qsizetype(0) << false;
    QTest::newRow("one byte below the limit") << kMaxUnsent - 1 << false;
    QTest::newRow("the limit") << kMaxUnsent << false;
    QTest::newRow("one byte over the limit") << kMaxUnsent + 1 << true;
    QTest::newRow("far over the limit") << 3 * kMaxUnsent << true;
}

void TestHandlerLag::laggingPeerIsNotReadFrom()
{
    QFETCH(const qsizetype, unsent);
    QFETCH(const bool, lags);
    device->stall();
    handler->writeToDevice(QByteArray(unsent, 'x'));
    QCOMPARE(device->bytesToWrite(), unsent);
    const QByteArray frame = request("echo", "1");
    device->feed(frame);
    QCOMPARE(device->unread(), lags ? frame.size() : 0);
    if (lags) {
        deliverEvents();
        QCOMPARE(control->calls, 0);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(control->calls, 1, kPatienceMs);
    }
    device->resume();
    QTRY_VERIFY_WITH_TIMEOUT(device->output().endsWith(answerFrame(success("1", "null"))), kPatienceMs);
}

void TestHandlerLag::laggingPeerGetsOnlyTheNewestUpdate()
{
    device->stall();
    const QByteArray large(kMaxUnsent + 1, 'x');
    handler->writeToDevice(large);
    for (int i = 0; i < 100; ++i) {
        handler->writeToDevice("update " + QByteArray::number(i));
    }
    QCOMPARE(device->unsent().size(), 1);
    device->resume();
    QTRY_COMPARE_WITH_TIMEOUT(device->writes().size(), 2, kPatienceMs);
    QVERIFY(device->writes().at(0) == large);
    QCOMPARE(device->writes().at(1), "update 99"_ba);

    handler->writeToDevice("update 100"_ba); // the peer has caught up, so it is sent at once
    QCOMPARE(device->writes().size(), 3);
    QCOMPARE(device->writes().last(), "update 100"_ba);
    deliverEvents();
    QCOMPARE(device->writes().size(), 3);
}

void TestHandlerLag::peerThatLagsAgainGetsTheNewestUpdate()
{
    const QByteArray large(kMaxUnsent + 1, 'x');
    device->stall();
    handler->writeToDevice(large);
    handler->writeToDevice("old"_ba);
    device->drainOnce();
    QTRY_COMPARE_WITH_TIMEOUT(device->unsent(), QByteArrayList{"old"_ba}, kPatienceMs);
    handler->writeToDevice(large);
    handler->writeToDevice("older"_ba);
    handler->writeToDevice("newest"_ba);
    device->resume();
    QTRY_COMPARE_WITH_TIMEOUT(device->writes().size(), 4, kPatienceMs);
    QCOMPARE(device->writes().last(), "newest"_ba);
}

void TestHandlerLag::olderUpdateIsNotSentAfterANewerOne()
{
    device->stall();
    handler->writeToDevice(QByteArray(kMaxUnsent + 1, 'x'));
    handler->writeToDevice("old"_ba);
    device->resume();
    handler->writeToDevice("new"_ba); // before the handler has sent the update that waits
    deliverEvents();
    QCOMPARE(device->writes().last(), "new"_ba);
}

ZARVO_TEST(TestHandlerLag)

#include "tst_handlerlag.moc"
