// SPDX-License-Identifier: MIT
#include "support/randomdata.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestRandomData : public QObject
{
    Q_OBJECT

private slots:
    void tokensAreDifferentAndOf32LowerCaseDigits();
    void bytesBecomeDigitsHighNibbleFirst_data();
    void bytesBecomeDigitsHighNibbleFirst();
    void deviceFailureIsReported_data();
    void deviceFailureIsReported();
};

void TestRandomData::tokensAreDifferentAndOf32LowerCaseDigits()
{
    static const QRegularExpression form(u"\\A[0-9a-f]{32}\\z"_s);
    constexpr int kTokens = 100;
    QSet<QString> seen;
    for (int i = 0; i < kTokens; ++i) {
        QString token;
        QString error = u"untouched"_s;
        QVERIFY(randomHex(&token, &error));
        QVERIFY2(form.match(token).hasMatch(), qPrintable(token));
        QCOMPARE(error, u"untouched"_s);
        seen.insert(token);
    }
    QCOMPARE(seen.size(), kTokens);
}

void TestRandomData::bytesBecomeDigitsHighNibbleFirst_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("token");
    const QByteArray bytes = QByteArray::fromHex("00017f80abcdeff00f1029384756fedc");
    QTest::newRow("just enough") << bytes << u"00017f80abcdeff00f1029384756fedc"_s;
    QTest::newRow("one byte more") << QByteArray(bytes + '\x55') << u"00017f80abcdeff00f1029384756fedc"_s;
    QTest::newRow("zeros") << QByteArray(16, '\0') << u"00000000000000000000000000000000"_s;
}

void TestRandomData::bytesBecomeDigitsHighNibbleFirst()
{
    QFETCH(const QByteArray, bytes);
    QFETCH(const QString, token);
    const QTemporaryDir dir;
    putFile(dir.filePath(u"device"_s), bytes);
    QString result;
    QString error;
    QVERIFY(randomHex(&result, &error, dir.filePath(u"device"_s)));
    QCOMPARE(result, token);
}

void TestRandomData::deviceFailureIsReported_data()
{
    QTest::addColumn<QByteArray>("bytes"); // null: there is no device
    QTest::addColumn<QString>("pattern");
    QTest::newRow("missing") << QByteArray() << u"Failed to open the file \"%1\": No such file or directory"_s;
    QTest::newRow("no data") << QByteArray("") << u"Failed to read from the file \"%1\": Too little data"_s;
    QTest::newRow("one byte too few") << QByteArray(15, 'x')
                                      << u"Failed to read from the file \"%1\": Too little data"_s;
}

void TestRandomData::deviceFailureIsReported()
{
    QFETCH(const QByteArray, bytes);
    QFETCH(const QString, pattern);
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"device"_s);
    if (!bytes.isNull()) {
        putFile(path, bytes);
    }
    QString result = u"untouched"_s;
    QString error;
    QVERIFY(!randomHex(&result, &error, path));
    QCOMPARE(error, pattern.arg(path));
    QCOMPARE(result, u"untouched"_s);
}

ZARVO_TEST(TestRandomData)

#include "tst_randomdata.moc"
