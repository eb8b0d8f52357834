// SPDX-License-Identifier: MIT
#include "agent/door/attemptlimiter.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class AttemptLimiterTest final : public QObject
{
    Q_OBJECT

private:
    const AttemptLimiter::Clock::time_point start = AttemptLimiter::Clock::time_point(1000h);
    const QHostAddress peer = QHostAddress(u"192.0.2.1"_s);

    static void fail(AttemptLimiter *limiter, const QHostAddress &address, AttemptLimiter::Clock::time_point now,
                     int times)
    {
        for (int i = 0; i < times; ++i) {
            limiter->wrongPassword(address, now);
        }
    }

private slots:
    void firstAttemptsAreFree()
    {
        AttemptLimiter limiter;
        for (int i = 0; i < AttemptLimiter::kFreeAttempts; ++i) {
            QVERIFY(!limiter.isLocked(peer, start));
            limiter.wrongPassword(peer, start);
        }
        QVERIFY(!limiter.isLocked(peer, start));
        limiter.wrongPassword(peer, start);
        QVERIFY(limiter.isLocked(peer, start));
    }

    void lockDoubles_data()
    {
        QTest::addColumn<int>("wrong");
        QTest::addColumn<int>("seconds");
        QTest::newRow("sixth") << 6 << 10;
        QTest::newRow("seventh") << 7 << 20;
        QTest::newRow("eighth") << 8 << 40;
        QTest::newRow("eleventh") << 11 << 320;
        QTest::newRow("twelfth") << 12 << 600;
        QTest::newRow("hundredth") << 100 << 600;
    }

    void lockDoubles()
    {
        QFETCH(int, wrong);
        QFETCH(int, seconds);
        AttemptLimiter limiter;
        fail(&limiter, peer, start, wrong);
        QVERIFY(limiter.isLocked(peer, start + std::chrono::seconds(seconds) - 1ms));
        QVERIFY(!limiter.isLocked(peer, start + std::chrono::seconds(seconds)));
    }

    void rightPasswordClears()
    {
        AttemptLimiter limiter;
        fail(&limiter, peer, start, 5);
        limiter.rightPassword(peer);
        fail(&limiter, peer, start, 5);
        QVERIFY(!limiter.isLocked(peer, start));
        limiter.rightPassword(QHostAddress(u"192.0.2.2"_s));
        QCOMPARE(limiter.size(), 1);
    }

    void quietAddressStartsFromZero()
    {
        AttemptLimiter limiter;
        fail(&limiter, peer, start, 20);
        limiter.wrongPassword(peer, start + 1201s);
        QVERIFY(!limiter.isLocked(peer, start + 1201s));
        fail(&limiter, peer, start + 1201s, 5);
        QVERIFY(limiter.isLocked(peer, start + 1201s));
    }

    void addressesOfOneHostCountTogether_data()
    {
        QTest::addColumn<QString>("other");
        QTest::addColumn<QString>("address");
        QTest::addColumn<bool>("isSame");
        QTest::newRow("other IPv4") << u"192.0.2.2"_s << u"192.0.2.1"_s << false;
        QTest::newRow("mapped") << u"::ffff:192.0.2.1"_s << u"192.0.2.1"_s << true;
        QTest::newRow("mapped other") << u"::ffff:192.0.2.2"_s << u"192.0.2.1"_s << false;
        QTest::newRow("same network") << u"2001:db8::1"_s << u"2001:db8::ffff:1"_s << true;
        QTest::newRow("other network") << u"2001:db8::1"_s << u"2001:db8:0:1::1"_s << false;
    }

    void addressesOfOneHostCountTogether()
    {
        QFETCH(QString, other);
        QFETCH(QString, address);
        QFETCH(bool, isSame);
        AttemptLimiter limiter;
        fail(&limiter, QHostAddress(address), start, 6);
        QCOMPARE(limiter.isLocked(QHostAddress(other), start), isSame);
    }

    void memoryIsBounded()
    {
        AttemptLimiter limiter;
        fail(&limiter, peer, start, 6);
        for (quint32 i = 0; i < 3000; ++i) {
            limiter.wrongPassword(QHostAddress(0x0a000000 + i), start + 1s);
            QVERIFY(limiter.size() <= AttemptLimiter::kMaxAddresses);
        }
        QVERIFY(!limiter.isLocked(peer, start + 2s)); // its wrong password is the oldest, so it is forgotten first
        limiter.wrongPassword(peer, start + 3000s);
        QCOMPARE(limiter.size(), 1); // all others were quiet long enough to be forgotten
    }
};

ZARVO_TEST(AttemptLimiterTest)
#include "tst_attemptlimiter.moc"
