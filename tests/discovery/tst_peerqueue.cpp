// SPDX-License-Identifier: MIT
#include "discovery/peerqueue.h"
#include "tests/testmain.h"

#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

class TestPeerQueue : public QObject
{
    Q_OBJECT

private slots:
    void oneAddressIsServedInItsOrder();
    void samePeerMayWaitSeveralTimes();
    void addressesTakeTurns();
    void oneAddressLeavesPlacesToOthers();
    void allPlacesTogetherAreLimited();
    void finishedPeerGivesItsPlaceBack();
    void fullQueueStillTakesAnotherAddress();
    void fullQueueDropsMoreOfTheSameAddress();
    void fullQueueOfSinglePeersTakesNoOther();
    void everyPeerIsTakenOnce();
};

namespace {

using Peer = PeerQueue::Peer;

QHostAddress address(quint32 number)
{
    return QHostAddress(0xC0000200U + number);
}

QList<Peer> takeAll(PeerQueue &queue)
{
    QList<Peer> taken;
    while (const std::optional<Peer> peer = queue.next()) {
        taken << *peer;
    }
    return taken;
}

/** Fills the queue with peers of one address. */
void fill(PeerQueue &queue, const QHostAddress &of)
{
    for (qsizetype i = 0; i < PeerQueue::kMaxWaiting; ++i) {
        queue.add({of, static_cast<quint16>(i)});
    }
    QCOMPARE(queue.waiting(), PeerQueue::kMaxWaiting);
}

} // namespace

void TestPeerQueue::oneAddressIsServedInItsOrder()
{
    PeerQueue queue;
    QCOMPARE(queue.next(), std::nullopt);
    for (const quint16 port : {3, 1, 2}) {
        queue.add({address(1), port});
    }
    QCOMPARE(queue.waiting(), 3);
    QCOMPARE(takeAll(queue), (QList<Peer>{{address(1), 3}, {address(1), 1}, {address(1), 2}}));
    QCOMPARE(queue.waiting(), 0);
    QCOMPARE(queue.asking(), 3);
}

void TestPeerQueue::samePeerMayWaitSeveralTimes()
{
    PeerQueue queue;
    const Peer peer(address(1), 5);
    queue.add(peer);
    queue.add(peer);
    QCOMPARE(takeAll(queue), (QList<Peer>{peer, peer}));
    queue.add(peer);
    QCOMPARE(takeAll(queue), QList<Peer>{peer});
}

void TestPeerQueue::addressesTakeTurns()
{
    PeerQueue queue;
    for (const quint16 port : {1, 2, 3}) {
        queue.add({address(1), port});
    }
    queue.add({address(2), 1});
    queue.add({address(3), 1});
    queue.add({address(3), 2});
    QCOMPARE(
        takeAll(queue),
        (QList<Peer>{
            {address(1), 1}, {address(2), 1}, {address(3), 1}, {address(1), 2}, {address(3), 2}, {address(1), 3}}));
}

void TestPeerQueue::oneAddressLeavesPlacesToOthers()
{
    PeerQueue queue;
    for (quint16 port = 0; port < 100; ++port) {
        queue.add({address(1), port});
    }
    QCOMPARE(takeAll(queue).size(), PeerQueue::kMaxAskingPerAddress);
    queue.add({address(2), 1});
    QCOMPARE(takeAll(queue), (QList<Peer>{{address(2), 1}}));
}

void TestPeerQueue::allPlacesTogetherAreLimited()
{
    PeerQueue queue;
    for (quint32 number = 0; number < 100; ++number) {
        queue.add({address(number), 1});
    }
    QCOMPARE(takeAll(queue).size(), PeerQueue::kMaxAsking);
    QCOMPARE(queue.asking(), PeerQueue::kMaxAsking);
    queue.finish({address(0), 1});
    QCOMPARE(takeAll(queue), (QList<Peer>{{address(PeerQueue::kMaxAsking), 1}}));
}

void TestPeerQueue::finishedPeerGivesItsPlaceBack()
{
    PeerQueue queue;
    constexpr quint16 kFirst = PeerQueue::kMaxAskingPerAddress;
    for (quint16 port = 0; port < kFirst + 10; ++port) {
        queue.add({address(1), port});
    }
    const QList<Peer> first = takeAll(queue);
    queue.finish(first.at(3));
    QCOMPARE(takeAll(queue), (QList<Peer>{{address(1), kFirst}}));
    queue.finish(first.at(0));
    queue.finish(first.at(1));
    QCOMPARE(takeAll(queue), (QList<Peer>{{address(1), kFirst + 1}, {address(1), kFirst + 2}}));
}

void TestPeerQueue::fullQueueStillTakesAnotherAddress()
{
    PeerQueue queue;
    fill(queue, address(1));
    queue.add({address(2), 7});
    QCOMPARE(queue.waiting(), PeerQueue::kMaxWaiting);
    QList<Peer> asked = takeAll(queue);
    QVERIFY(asked.contains(Peer(address(2), 7)));
    Peer last;
    for (; !asked.isEmpty(); asked << takeAll(queue)) {
        last = asked.takeFirst();
        queue.finish(last);
    }
    QCOMPARE(last, Peer(address(1), PeerQueue::kMaxWaiting - 2)); // its last peer was dropped
}

void TestPeerQueue::fullQueueDropsMoreOfTheSameAddress()
{
    PeerQueue queue;
    fill(queue, address(1));
    queue.add({address(2), 1});
    queue.add({address(1), 65535});
    queue.add({address(2), 2});
    QCOMPARE(queue.waiting(), PeerQueue::kMaxWaiting);
    QVERIFY(!takeAll(queue).contains(Peer(address(2), 2)));
}

void TestPeerQueue::fullQueueOfSinglePeersTakesNoOther()
{
    PeerQueue queue;
    for (quint32 number = 0; number < PeerQueue::kMaxWaiting; ++number) {
        queue.add({address(number), 1});
    }
    queue.add({address(PeerQueue::kMaxWaiting), 1});
    QCOMPARE(queue.waiting(), PeerQueue::kMaxWaiting);
}

void TestPeerQueue::everyPeerIsTakenOnce()
{
    PeerQueue queue;
    QList<Peer> added;
    QList<Peer> taken;
    QList<Peer> asked;
    for (quint32 i = 0; i < 3000; ++i) {
        // Most peers have the same address. The queries end in another order than they started.
        const Peer peer(address(i % 7 == 0 ? i % 11 : 100), static_cast<quint16>(i));
        added << peer;
        queue.add(peer);
        if (i % 3 == 0) {
            asked << takeAll(queue);
        }
        if (i % 2 == 0 && !asked.isEmpty()) {
            taken << asked.takeAt(i % asked.size());
            queue.finish(taken.last());
        }
    }
    for (asked << takeAll(queue); !asked.isEmpty(); asked << takeAll(queue)) {
        taken << asked.takeLast();
        queue.finish(taken.last());
    }
    std::sort(added.begin(), added.end(), [](const Peer &a, const Peer &b) { return a.second < b.second; });
    std::sort(taken.begin(), taken.end(), [](const Peer &a, const Peer &b) { return a.second < b.second; });
    QCOMPARE(taken, added);
    QCOMPARE(queue.waiting(), 0);
    QCOMPARE(queue.asking(), 0);
}

ZARVO_TEST(TestPeerQueue)

#include "tst_peerqueue.moc"
