// SPDX-License-Identifier: MIT
#include "client/sessions/hostlookup.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class TestHostLookup : public QObject
{
    Q_OBJECT

private slots:
    void knownHostHasItsAddresses()
    {
        const auto found = lookUpHosts({u"localhost"_s, u"127.0.0.3"_s}, 30s);
        const QHostAddress loopback(QHostAddress::LocalHost);
        QVERIFY(found.value(u"localhost"_s).contains(loopback) ||
                found.value(u"localhost"_s).contains(QHostAddress(QHostAddress::LocalHostIPv6)));
        QCOMPARE(found.value(u"127.0.0.3"_s), QList<QHostAddress>{QHostAddress(u"127.0.0.3"_s)});
    }

    void nothingIsAskedWithoutNames()
    {
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(lookUpHosts({}, 60s).isEmpty());
        QVERIFY(elapsed.elapsed() < 30000);
    }

    void lateAnswersAreNotWaitedFor()
    {
        // The time is over before a thread can answer, and the thread ends later without harm.
        QElapsedTimer elapsed;
        elapsed.start();
        const auto found = lookUpHosts({u"no-such-host.invalid"_s}, 0ms);
        QVERIFY(found.value(u"no-such-host.invalid"_s).isEmpty());
        QVERIFY(elapsed.elapsed() < 4000); // the resolver's own timeout is 5 s for each server
    }

    void unknownHostHasNoAddress()
    {
        const QString name(300, u'x');
        QVERIFY(lookUpHosts({name}, 30s).value(name).isEmpty());
    }
};

ZARVO_TEST(TestHostLookup)
#include "tst_hostlookup.moc"
