// SPDX-License-Identifier: MIT
#include "support/vncdes.h"
#include "tests/testmain.h"

#include <QTest>

class VncDesTest final : public QObject
{
    Q_OBJECT

private slots:
    // The published example of DES: key 133457799BBCDFF1, whose bytes are mirrored here.
    void encryptsThePublishedExample()
    {
        const QByteArray key = QByteArray::fromHex("c82cea9ed93dfb8f");
        const QByteArray block = QByteArray::fromHex("0123456789abcdef");
        QCOMPARE(vncDesEncrypted(key, block).toHex(), QByteArray("85e813540f0ab405"));
    }

    void encryptsEachBlockByItself()
    {
        const QByteArray first(kVncDesBlockBytes, 'a');
        const QByteArray second(kVncDesBlockBytes, 'b');
        QCOMPARE(vncDesEncrypted("password", first + second),
                 vncDesEncrypted("password", first) + vncDesEncrypted("password", second));
    }

    void usesEightBytesOfTheKey()
    {
        const QByteArray block(kVncDesBlockBytes, 'c');
        QCOMPARE(vncDesEncrypted("123456789", block), vncDesEncrypted("12345678", block));
        QVERIFY(vncDesEncrypted("1234567", block) != vncDesEncrypted("12345678", block));
        QCOMPARE(vncDesEncrypted("short", block), vncDesEncrypted(QByteArray("short\0\0\0", 8), block));
        QCOMPARE(vncDesEncrypted({}, block).size(), kVncDesBlockBytes);
    }

    void refusesHalfABlock()
    {
        for (const qsizetype size : {1, 7, 9, 15}) {
            QCOMPARE(vncDesEncrypted("password", QByteArray(size, 'c')), QByteArray());
        }
    }
};

ZARVO_TEST(VncDesTest)
#include "tst_vncdes.moc"
