// SPDX-License-Identifier: MIT
#include "agent/door/vncauth.h"
#include "tests/testmain.h"

#include <QSet>
#include <QTest>

class VncAuthTest final : public QObject
{
    Q_OBJECT

private slots:
    // The published example of DES: key 133457799BBCDFF1, whose bytes are mirrored here.
    void responseIsTheEncryptedChallenge()
    {
        const QByteArray password = QByteArray::fromHex("c82cea9ed93dfb8f");
        const QByteArray block = QByteArray::fromHex("0123456789abcdef");
        QCOMPARE(vncAuthResponse(password, block + block).toHex(), QByteArray("85e813540f0ab40585e813540f0ab405"));
    }

    void onlyEightCharactersCount()
    {
        const QByteArray challenge(kVncChallengeBytes, 'c');
        QCOMPARE(vncAuthResponse("12345678", challenge), vncAuthResponse("123456789", challenge));
        QVERIFY(vncAuthResponse("12345678", challenge) != vncAuthResponse("1234567", challenge));
        QCOMPARE(vncAuthResponse("short", challenge), vncAuthResponse(QByteArray("short\0\0\0", 8), challenge));
        QCOMPARE(vncAuthResponse("", challenge).size(), kVncChallengeBytes);
    }

    void challengeOfAnotherLengthHasNoResponse()
    {
        for (const qsizetype size : {0, 1, 8, 15, 17, 32}) {
            QCOMPARE(vncAuthResponse("12345678", QByteArray(size, 'c')), QByteArray());
        }
    }

    void challengesAreNeverTheSame()
    {
        QSet<QByteArray> challenges;
        for (int i = 0; i < 100; ++i) {
            const QByteArray challenge = newVncChallenge();
            QCOMPARE(challenge.size(), kVncChallengeBytes);
            challenges.insert(challenge);
        }
        QCOMPARE(challenges.size(), 100);
    }

    void onlyEqualSecretsMatch_data()
    {
        QTest::addColumn<QByteArray>("a");
        QTest::addColumn<QByteArray>("b");
        QTest::addColumn<bool>("areEqual");
        QTest::newRow("equal") << QByteArray("abc") << QByteArray("abc") << true;
        QTest::newRow("first differs") << QByteArray("abc") << QByteArray("xbc") << false;
        QTest::newRow("last differs") << QByteArray("abc") << QByteArray("abx") << false;
        QTest::newRow("longer") << QByteArray("abc") << QByteArray("abcd") << false;
        QTest::newRow("shorter") << QByteArray("abc") << QByteArray("ab") << false;
        QTest::newRow("zero bytes") << QByteArray("a\0b", 3) << QByteArray("a\0c", 3) << false;
        QTest::newRow("empty") << QByteArray() << QByteArray() << false;
    }

    void onlyEqualSecretsMatch()
    {
        QFETCH(QByteArray, a);
        QFETCH(QByteArray, b);
        QTEST(equalInConstantTime(a, b), "areEqual");
    }
};

ZARVO_TEST(VncAuthTest)
#include "tst_vncauth.moc"
