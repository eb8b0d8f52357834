// SPDX-License-Identifier: MIT
#include "rpc/strangerlimit.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestStrangerLimit : public QObject
{
    Q_OBJECT

private slots:
    void nothingEndsBelowTheLimits();
    void oldestOfASourceEndsBeyondItsShare();
    void oldestOfTheBiggestSourceEndsBeyondTheLimitOfAll();
    void oldestEndsIfAllSourcesAreEqual();
    void removedConnectionsDoNotCount();
    void addressesOfANetworkAreOneSource();

private:
    /** Adds so many connections from the address. Returns the id of the first one. */
    StrangerLimit::Id add(const QString &address, qsizetype count)
    {
        StrangerLimit::Id first = 0;
        for (qsizetype number = 0; number < count; ++number) {
            const StrangerLimit::Id id = limit->add(QHostAddress(address));
            first = first == 0 ? id : first;
        }
        return first;
    }

    std::optional<StrangerLimit> limit;

private slots:
    void init() { limit.emplace(); }
};

namespace {

constexpr qsizetype kMaxAll = StrangerLimit::kMaxAll;
constexpr qsizetype kShare = StrangerLimit::kMaxPerSource;

} // namespace

void TestStrangerLimit::nothingEndsBelowTheLimits()
{
    QVERIFY(!limit->excess());
    for (qsizetype number = 0; number < kMaxAll / kShare; ++number) {
        add(u"192.0.2.%1"_s.arg(number), kShare);
        QVERIFY(!limit->excess());
    }
    QCOMPARE(limit->size(), kMaxAll);
}

void TestStrangerLimit::oldestOfASourceEndsBeyondItsShare()
{
    add(u"192.0.2.9"_s, 1);
    const StrangerLimit::Id first = add(u"192.0.2.1"_s, kShare);
    QVERIFY(!limit->excess());
    add(u"192.0.2.1"_s, 1);
    QCOMPARE(limit->excess(), first);
    limit->remove(first);
    QVERIFY(!limit->excess());
    add(u"192.0.2.1"_s, 1);
    QCOMPARE(limit->excess(), first + 1);
}

void TestStrangerLimit::oldestOfTheBiggestSourceEndsBeyondTheLimitOfAll()
{
    const StrangerLimit::Id lonely = add(u"192.0.2.100"_s, 1);
    add(u"192.0.2.1"_s, kShare - 1);
    const StrangerLimit::Id biggest = add(u"192.0.2.2"_s, kShare);
    add(u"192.0.2.3"_s, kShare - 1);
    add(u"192.0.2.4"_s, kShare - 1);
    add(u"192.0.2.5"_s, kMaxAll - limit->size());
    QVERIFY(!limit->excess());
    const StrangerLimit::Id newcomer = add(u"192.0.2.101"_s, 1);
    QCOMPARE(limit->excess(), biggest);
    limit->remove(biggest);
    QVERIFY(!limit->excess());
    limit->remove(lonely);
    limit->remove(newcomer);
    QCOMPARE(limit->size(), kMaxAll - 2);
}

void TestStrangerLimit::oldestEndsIfAllSourcesAreEqual()
{
    StrangerLimit::Id first = 0;
    for (qsizetype number = 0; number <= kMaxAll; ++number) {
        const StrangerLimit::Id id = add(QHostAddress(static_cast<quint32>(0x0a000000 + number)).toString(), 1);
        first = number == 0 ? id : first;
    }
    QCOMPARE(limit->excess(), first);
}

void TestStrangerLimit::removedConnectionsDoNotCount()
{
    for (qsizetype number = 0; number < 3 * kMaxAll; ++number) {
        const StrangerLimit::Id id = add(u"192.0.2.1"_s, 1);
        limit->remove(id);
        limit->remove(id); // nothing happens
    }
    QCOMPARE(limit->size(), 0);
    QVERIFY(!limit->excess());
}

void TestStrangerLimit::addressesOfANetworkAreOneSource()
{
    const StrangerLimit::Id first = add(u"2001:db8::1"_s, 1);
    for (qsizetype number = 1; number < kShare; ++number) {
        add(u"2001:db8::%1:0:0:7"_s.arg(number, 0, 16), 1);
        QVERIFY(!limit->excess());
    }
    add(u"2001:db8:0:1::1"_s, 1); // of another network
    QVERIFY(!limit->excess());
    add(u"2001:db8::1"_s, 1);
    QCOMPARE(limit->excess(), first);
}

ZARVO_TEST(TestStrangerLimit)

#include "tst_strangerlimit.moc"
