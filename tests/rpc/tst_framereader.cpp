// SPDX-License-Identifier: MIT
#include "rpc/framereader.h"
#include "tests/testmain.h"

#include <QTest>

using Result = FrameReader::Result;

class TestFrameReader : public QObject
{
    Q_OBJECT

private slots:
    void framesAreSplitWhereverTheStreamIsCut()
    {
        const QByteArray stream = "5:hello,0:,12:twelve bytes,";
        for (qsizetype split = 0; split <= stream.size(); ++split) {
            FrameReader reader;
            QByteArrayList payloads;
            QByteArray payload;
            for (const QByteArray &part : {stream.first(split), stream.sliced(split)}) {
                reader.append(part);
                while (reader.next(&payload) == Result::Frame) {
                    payloads.append(payload);
                }
            }
            QCOMPARE(payloads, (QByteArrayList{"hello", "", "twelve bytes"}));
            QVERIFY(reader.next(&payload) == Result::Partial);
        }
    }

    void frameMayBeLongerThanAServerAccepts()
    {
        const QByteArray text(200000, 'x');
        FrameReader reader;
        reader.append("200000:" + text + ',');
        QByteArray payload;
        QVERIFY(reader.next(&payload) == Result::Frame);
        QCOMPARE(payload, text);
    }

    void brokenStreamIsRefused_data()
    {
        QTest::addColumn<QByteArray>("stream");
        QTest::newRow("no length") << QByteArray(":");
        QTest::newRow("letter") << QByteArray("a");
        QTest::newRow("sign") << QByteArray("-1:");
        QTest::newRow("blank") << QByteArray(" 1:");
        QTest::newRow("one over the limit") << QByteArray::number(FrameReader::kMaxPayloadBytes + 1) + ':';
        QTest::newRow("too many digits") << QByteArray("123456789");
        QTest::newRow("no comma") << QByteArray("1:ab");
    }
    void brokenStreamIsRefused()
    {
        QFETCH(QByteArray, stream);
        FrameReader reader;
        reader.append(stream);
        QByteArray payload = "untouched";
        QVERIFY(reader.next(&payload) == Result::Invalid);
        QCOMPARE(payload, QByteArray("untouched"));
    }

    void payloadOfTheLimitIsAccepted()
    {
        FrameReader reader;
        reader.append(QByteArray::number(FrameReader::kMaxPayloadBytes) + ':');
        QByteArray payload;
        QVERIFY(reader.next(&payload) == Result::Partial);
    }
};

ZARVO_TEST(TestFrameReader)
#include "tst_framereader.moc"
