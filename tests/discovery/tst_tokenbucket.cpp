// SPDX-License-Identifier: MIT
#include "discovery/tokenbucket.h"
#include "tests/testmain.h"

#include <QTest>

using namespace std::chrono_literals;

class TestTokenBucket : public QObject
{
    Q_OBJECT

private slots:
    void newBucketIsFull();
    void tokensComeBackAtTheRate();
    void moreThanTheCapacityIsNotKept();

private:
    const TokenBucket::Clock::time_point start = TokenBucket::Clock::now();
};

void TestTokenBucket::newBucketIsFull()
{
    TokenBucket bucket(2, 1, start);
    QVERIFY(bucket.isFull(start));
    QVERIFY(bucket.hasToken(start));
    bucket.take(start);
    QVERIFY(!bucket.isFull(start));
    QVERIFY(bucket.hasToken(start));
    bucket.take(start);
    QVERIFY(!bucket.hasToken(start));
}

void TestTokenBucket::tokensComeBackAtTheRate()
{
    TokenBucket bucket(1, 4, start);
    bucket.take(start);
    QVERIFY(!bucket.hasToken(start + 249ms));
    QVERIFY(bucket.hasToken(start + 250ms));
    QVERIFY(bucket.isFull(start + 250ms));
}

void TestTokenBucket::moreThanTheCapacityIsNotKept()
{
    TokenBucket bucket(3, 1, start);
    const auto later = start + 1h;
    for (int count = 0; count < 3; ++count) {
        QVERIFY(bucket.hasToken(later));
        bucket.take(later);
    }
    QVERIFY(!bucket.hasToken(later));
}

ZARVO_TEST(TestTokenBucket)

#include "tst_tokenbucket.moc"
