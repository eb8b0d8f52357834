// SPDX-License-Identifier: MIT
#include "support/hostaddress.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestHostAddress : public QObject
{
    Q_OBJECT

private slots:
    void mappedAddressBecomesIPv4_data();
    void mappedAddressBecomesIPv4();
    void networkOfAnIPv6AddressCounts_data();
    void networkOfAnIPv6AddressCounts();
};

void TestHostAddress::mappedAddressBecomesIPv4_data()
{
    QTest::addColumn<QHostAddress>("address");
    QTest::addColumn<QString>("text");
    const auto row = [](const QString &address, const QString &text) {
        QTest::newRow(qPrintable(address)) << QHostAddress(address) << text;
    };
    row(u"::ffff:192.0.2.1"_s, u"192.0.2.1"_s);
    row(u"::ffff:0.0.0.0"_s, u"0.0.0.0"_s);
    row(u"192.0.2.1"_s, u"192.0.2.1"_s);
    row(u"2001:db8::ffff:1"_s, u"2001:db8::ffff:1"_s);
    row(u"fe80::1%lo"_s, u"fe80::1%lo"_s);
    QTest::newRow("none") << QHostAddress() << u""_s;
}

void TestHostAddress::mappedAddressBecomesIPv4()
{
    QFETCH(const QHostAddress, address);
    QFETCH(const QString, text);
    const QHostAddress plain = withoutIPv4Mapping(address);
    QCOMPARE(plain.toString(), text);
    QCOMPARE(plain, QHostAddress(text));
}

void TestHostAddress::networkOfAnIPv6AddressCounts_data()
{
    QTest::addColumn<QString>("counted");
    QTest::newRow("192.0.2.1") << u"192.0.2.1"_s;
    QTest::newRow("::ffff:192.0.2.1") << u"192.0.2.1"_s;
    QTest::newRow("2001:db8:1:2:3:4:5:6") << u"2001:db8:1:2::"_s;
    QTest::newRow("2001:db8:1:2::") << u"2001:db8:1:2::"_s;
    QTest::newRow("2001:db8:1:3:3:4:5:6") << u"2001:db8:1:3::"_s;
}

void TestHostAddress::networkOfAnIPv6AddressCounts()
{
    QFETCH(const QString, counted);
    const QHostAddress address(QString::fromLatin1(QTest::currentDataTag()));
    QCOMPARE(countedAddress(address).toString(), counted);
}

ZARVO_TEST(TestHostAddress)

#include "tst_hostaddress.moc"
