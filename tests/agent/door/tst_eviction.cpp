// SPDX-License-Identifier: MIT
#include "agent/door/eviction.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class EvictionTest final : public QObject
{
    Q_OBJECT

private:
    QRandomGenerator random{1};

    static QList<QHostAddress> addresses(const QStringList &texts)
    {
        QList<QHostAddress> all;
        for (const QString &text : texts) {
            all.append(QHostAddress(text));
        }
        return all;
    }

    /** How often each one is chosen. */
    QList<int> choices(const QList<QHostAddress> &strangers, int draws)
    {
        QList<int> counts(strangers.size(), 0);
        for (int i = 0; i < draws; ++i) {
            ++counts[chooseEvicted(strangers, &random)];
        }
        return counts;
    }

private slots:
    void onlyOneIsChosen() { QCOMPARE(chooseEvicted(addresses({u"192.0.2.1"_s}), &random), qsizetype{0}); }

    void strangersOfOneAddressAreChosenAlike()
    {
        const QList<int> counts = choices(QList<QHostAddress>(10, QHostAddress(u"192.0.2.1"_s)), 10000);
        for (const int count : counts) {
            QVERIFY(count > 800 && count < 1200); // 1000 expected, with a deviation of 30
        }
    }

    void addressWithMostLosesOne()
    {
        const QList<int> counts =
            choices(addresses({u"192.0.2.1"_s, u"192.0.2.2"_s, u"192.0.2.1"_s, u"192.0.2.3"_s}), 1000);
        QCOMPARE(counts[1], 0);
        QCOMPARE(counts[3], 0);
        QVERIFY(counts[0] > 300 && counts[2] > 300);
    }

    // Its owner has many addresses, each of them used once.
    void networkWithMostLosesOne_data()
    {
        QTest::addColumn<QStringList>("network");
        QTest::addColumn<QStringList>("others");
        QTest::newRow("IPv4") << QStringList{u"192.0.2.1"_s, u"192.0.2.77"_s, u"192.0.2.255"_s}
                              << QStringList{u"192.0.3.1"_s, u"192.0.3.1"_s, u"198.51.100.1"_s};
        QTest::newRow("IPv4 as IPv6") << QStringList{u"::ffff:192.0.2.1"_s, u"192.0.2.77"_s, u"::ffff:192.0.2.255"_s}
                                      << QStringList{u"::ffff:192.0.3.1"_s, u"192.0.3.1"_s, u"::1"_s};
        QTest::newRow("IPv6") << QStringList{u"2001:db8:1:1::1"_s, u"2001:db8:1:2::1"_s, u"2001:db8:1:ffff::9"_s}
                              << QStringList{u"2001:db8:2::1"_s, u"2001:db8:2::1"_s, u"192.0.2.1"_s};
    }

    void networkWithMostLosesOne()
    {
        QFETCH(QStringList, network);
        QFETCH(QStringList, others);
        const QList<int> counts = choices(addresses(others + network), 1000);
        for (qsizetype i = 0; i < counts.size(); ++i) {
            QCOMPARE(counts[i] > 0, i >= others.size());
        }
    }

    // Otherwise many addresses of a large network would win against the one that floods.
    void addressWithMostOfItsNetworkLosesOne()
    {
        const QList<int> counts =
            choices(addresses({u"2001:db8:1:1::1"_s, u"2001:db8:1:2::1"_s, u"2001:db8:1:2::2"_s}), 1000);
        QCOMPARE(counts[0], 0);
        QVERIFY(counts[1] > 300 && counts[2] > 300); // the same /64 is one owner
    }

    void equalNetworksLoseAlike()
    {
        const QList<int> counts =
            choices(addresses({u"192.0.2.1"_s, u"192.0.2.1"_s, u"198.51.100.1"_s, u"198.51.100.2"_s}), 8000);
        for (const int count : counts) {
            QVERIFY(count > 1700 && count < 2300); // 2000 expected, with a deviation of 39
        }
    }

    void floodFromOneNetworkTakesNoMoreTurnsThanOneStranger()
    {
        QList<QHostAddress> strangers(99, QHostAddress(u"192.0.2.1"_s));
        strangers.append(QHostAddress(u"198.51.100.1"_s));
        int turns = 0;
        for (int i = 0; i < 1000; ++i) {
            turns += chooseServed(strangers, &random) == 99 ? 1 : 0;
        }
        QVERIFY(turns > 400 && turns < 600);
    }
};

ZARVO_TEST(EvictionTest)
#include "tst_eviction.moc"
