// SPDX-License-Identifier: MIT
#include "discovery/announcementlimit.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class TestAnnouncementLimit : public QObject
{
    Q_OBJECT

private slots:
    void init() { limit.emplace(now); }
    void tenOfASourceAreAdmittedAtOnce();
    void shareComesBackWithTheTime();
    void tenASecondAreAlwaysAdmitted();
    void sourcesHaveSharesOfTheirOwn();
    void addressesOfANetworkAreOneSource();
    void allSourcesTogetherAreBounded();
    void refusedAnnouncementsDoNotCount();
    void trustedSourceIsAdmittedDuringAFlood();
    void trustedSourceHasItsOwnShareOnly();
    void trustEnds();
    void tableIsBounded();

private:
    /** How many of so many announcements are admitted. */
    int admitted(const QString &address, int count)
    {
        int all = 0;
        for (int number = 0; number < count; ++number) {
            all += limit->admits(QHostAddress(address), now) ? 1 : 0;
        }
        return all;
    }
    /** The same from a forged address each. */
    int flood(int count)
    {
        int all = 0;
        for (int number = 0; number < count; ++number) {
            all += limit->admits(QHostAddress(static_cast<quint32>(0x0a000000 + ++forged)), now) ? 1 : 0;
        }
        return all;
    }

    AnnouncementLimit::Clock::time_point now = AnnouncementLimit::Clock::now();
    std::optional<AnnouncementLimit> limit;
    int forged = 0;
};

namespace {

const QString kSource = u"192.0.2.1"_s;
constexpr int kMaxAtOnce = AnnouncementLimit::kMaxAtOnce;

} // namespace

void TestAnnouncementLimit::tenOfASourceAreAdmittedAtOnce()
{
    QCOMPARE(admitted(kSource, 1000), 10);
}

void TestAnnouncementLimit::shareComesBackWithTheTime()
{
    QCOMPARE(admitted(kSource, 20), 10);
    now += 99ms;
    QCOMPARE(admitted(kSource, 20), 0);
    now += 2ms;
    QCOMPARE(admitted(kSource, 20), 1);
    now += 1s;
    QCOMPARE(admitted(kSource, 20), 10);
    now += 1h;
    QCOMPARE(admitted(kSource, 20), 10);
}

void TestAnnouncementLimit::tenASecondAreAlwaysAdmitted()
{
    for (int second = 0; second < 60; ++second) {
        QCOMPARE(admitted(kSource, 10), 10);
        now += 1001ms;
    }
}

void TestAnnouncementLimit::sourcesHaveSharesOfTheirOwn()
{
    QCOMPARE(admitted(kSource, 20), 10);
    QCOMPARE(admitted(u"192.0.2.2"_s, 20), 10);
    QCOMPARE(admitted(u"::ffff:192.0.2.2"_s, 20), 0);
}

void TestAnnouncementLimit::addressesOfANetworkAreOneSource()
{
    QCOMPARE(admitted(u"2001:db8::1"_s, 6), 6);
    QCOMPARE(admitted(u"2001:db8::2"_s, 6), 4);
    QCOMPARE(admitted(u"2001:db8:0:1::2"_s, 6), 6);
}

void TestAnnouncementLimit::allSourcesTogetherAreBounded()
{
    QCOMPARE(flood(5000), kMaxAtOnce);
    now += 1001ms;
    QCOMPARE(flood(5000), AnnouncementLimit::kAllPerSecond);
    now += 10s;
    QCOMPARE(flood(5000), kMaxAtOnce);
}

void TestAnnouncementLimit::refusedAnnouncementsDoNotCount()
{
    QCOMPARE(admitted(kSource, 100000), 10);
    QCOMPARE(flood(5000), kMaxAtOnce - 10);
}

void TestAnnouncementLimit::trustedSourceIsAdmittedDuringAFlood()
{
    limit->trust(QHostAddress(kSource), now);
    QCOMPARE(flood(5000), kMaxAtOnce);
    QCOMPARE(admitted(u"192.0.2.2"_s, 1), 0);
    QCOMPARE(admitted(kSource, 20), 10);
}

void TestAnnouncementLimit::trustedSourceHasItsOwnShareOnly()
{
    QCOMPARE(admitted(kSource, 20), 10);
    limit->trust(QHostAddress(kSource), now);
    QCOMPARE(admitted(kSource, 20), 0);
    now += 1001ms;
    QCOMPARE(admitted(kSource, 20), 10);
}

void TestAnnouncementLimit::trustEnds()
{
    limit->trust(QHostAddress(kSource), now);
    now += 399s;
    QCOMPARE(flood(5000), kMaxAtOnce);
    QCOMPARE(admitted(kSource, 1), 1);
    now += 2s;
    QVERIFY(flood(5000) > 0);
    QCOMPARE(admitted(kSource, 1), 0);
}

void TestAnnouncementLimit::tableIsBounded()
{
    for (int second = 0; second < 500; ++second) {
        flood(1000);
        now += 1s;
    }
    QVERIFY(limit->size() <= AnnouncementLimit::kMaxSources);
    for (quint32 number = 0; number < 5000; ++number) {
        limit->trust(QHostAddress(0x0b000000 + number), now);
    }
    QCOMPARE(limit->size(), AnnouncementLimit::kMaxSources);
    now += 500s;
    QCOMPARE(admitted(kSource, 20), 10);
    QCOMPARE(limit->size(), 1);
}

ZARVO_TEST(TestAnnouncementLimit)

#include "tst_announcementlimit.moc"
