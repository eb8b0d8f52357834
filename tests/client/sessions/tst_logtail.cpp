// SPDX-License-Identifier: MIT
#include "client/sessions/logtail.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestLogTail : public QObject
{
    Q_OBJECT

private slots:
    void lastLinesAreRead_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("lines");
        QTest::addColumn<QString>("tail");
        QTest::newRow("empty") << QByteArray() << 5 << QString();
        QTest::newRow("empty, all") << QByteArray() << 0 << QString();
        QTest::newRow("all") << QByteArray("a\nb\n") << 0 << u"a\nb\n"_s;
        QTest::newRow("last") << QByteArray("a\nb\nc\n") << 1 << u"c\n"_s;
        QTest::newRow("two") << QByteArray("a\nb\nc\n") << 2 << u"b\nc\n"_s;
        QTest::newRow("as many as there are") << QByteArray("a\nb\n") << 2 << u"a\nb\n"_s;
        QTest::newRow("more than there are") << QByteArray("a\nb\n") << 3 << u"a\nb\n"_s;
        QTest::newRow("no line feed") << QByteArray("a\nb") << 1 << u"b\n"_s;
        QTest::newRow("empty lines") << QByteArray("\n\n\n") << 2 << u"\n\n"_s;
        QTest::newRow("one empty line") << QByteArray("\n") << 1 << u"\n"_s;
    }
    void lastLinesAreRead()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, lines);
        QString text;
        QVERIFY(read(content, lines, &text));
        QTEST(text, "tail");
    }

    void atMostAMebibyteIsRead()
    {
        QString text;
        QVERIFY(read(QByteArray("0123456789abcde\n").repeated(100000), 0, &text));
        QVERIFY(text.size() <= 1024 * 1024);
        QVERIFY(text.startsWith(u"0123456789abcde\n"_s));
    }

    void missingFileIsAnError()
    {
        QString text;
        QString error;
        QVERIFY(!readTail(folder.filePath(u"nothing"_s), 1, &text, &error));
        QVERIFY(error.contains(u"nothing"_s));
    }

    void tailGoesOnInTheOldLog_data()
    {
        QTest::addColumn<int>("lines");
        QTest::addColumn<QString>("tail");
        QTest::newRow("in the log") << 1 << u"d\n"_s;
        QTest::newRow("all of the log") << 2 << u"c\nd\n"_s;
        QTest::newRow("one more") << 3 << u"b\nc\nd\n"_s;
        QTest::newRow("more than there are") << 9 << u"a\nb\nc\nd\n"_s;
        QTest::newRow("all") << 0 << u"a\nb\nc\nd\n"_s;
    }
    void tailGoesOnInTheOldLog()
    {
        QFETCH(int, lines);
        putFile(folder.filePath(u"log.old"_s), "a\nb\n");
        putFile(folder.filePath(u"log"_s), "c\nd\n");
        QString text;
        QString error;
        QVERIFY(readRotatedTail(folder.filePath(u"log"_s), lines, &text, &error));
        QTEST(text, "tail");
        QVERIFY(QFile::remove(folder.filePath(u"log.old"_s)));
    }

    void noLineIsLeftOutInTheMiddle_data()
    {
        QTest::addColumn<int>("lines");
        QTest::addColumn<int>("expected");
        QTest::newRow("all") << 0 << 400000;
        QTest::newRow("more than a MiB") << 150000 << 150000;
        QTest::newRow("more than the latest") << 250000 << 250000;
        QTest::newRow("more than there are") << 500000 << 400000;
    }
    void noLineIsLeftOutInTheMiddle()
    {
        QFETCH(const int, lines);
        QFETCH(const int, expected);
        QByteArray all;
        for (int number = 0; number < 400000; ++number) {
            all += QByteArray::number(number).rightJustified(15, '0') + '\n';
        }
        putFile(folder.filePath(u"log.old"_s), all.first(all.size() / 2));
        putFile(folder.filePath(u"log"_s), all.sliced(all.size() / 2));
        QString text;
        QString error;
        QVERIFY(readRotatedTail(folder.filePath(u"log"_s), lines, &text, &error));
        QVERIFY(text == QString::fromUtf8(all.last(qsizetype(expected) * 16)));
        QVERIFY(QFile::remove(folder.filePath(u"log.old"_s)));
    }

    void oldLogBeforeAHoleIsLeftOut()
    {
        putFile(folder.filePath(u"log.old"_s), "old\n");
        putFile(folder.filePath(u"log"_s), QByteArray("0123456789abcde\n").repeated(3 * 1024 * 1024));
        QString text;
        QString error;
        QVERIFY(readRotatedTail(folder.filePath(u"log"_s), 0, &text, &error));
        QVERIFY(text.startsWith(u"0123456789abcde\n"_s));
        QVERIFY(QFile::remove(folder.filePath(u"log.old"_s)));
    }

    void unreadableOldLogIsLeftOut()
    {
        QVERIFY(QDir(folder.path()).mkdir(u"log.old"_s)); // unreadable for root as well
        putFile(folder.filePath(u"log"_s), "c\nd\n");
        QString text;
        QString error;
        QVERIFY(readRotatedTail(folder.filePath(u"log"_s), 9, &text, &error));
        QCOMPARE(text, u"c\nd\n"_s);
        QVERIFY(error.contains(u"log.old"_s));
        error.clear();
        QVERIFY(readRotatedTail(folder.filePath(u"log"_s), 1, &text, &error));
        QCOMPARE(error, QString());
        QVERIFY(QDir(folder.path()).rmdir(u"log.old"_s));
    }

    void oldLogAloneIsRead()
    {
        putFile(folder.filePath(u"log.old"_s), "a\nb\n");
        QVERIFY(!QFile::exists(folder.filePath(u"log"_s)) || QFile::remove(folder.filePath(u"log"_s)));
        QString text;
        QString error;
        QVERIFY(readRotatedTail(folder.filePath(u"log"_s), 5, &text, &error));
        QCOMPARE(text, u"a\nb\n"_s);
        QVERIFY(QFile::remove(folder.filePath(u"log.old"_s)));
        QVERIFY(!readRotatedTail(folder.filePath(u"log"_s), 5, &text, &error));
        QVERIFY(error.contains(u"log"_s));
    }

    void passwordsAreReplaced()
    {
        QCOMPARE(withoutPasswords(u"Added new password abc'12\nRDP\nExpiring password x y\n"
                                  "Client authenticated from '::1' at 'now' with password 'secret'\n"_s),
                 u"Added new password ********\nRDP\nExpiring password ********\n"
                 "Client authenticated from '::1' at 'now' with password '********'\n"_s);
        QCOMPARE(withoutPasswords(u"no word of it\n"_s), u"no word of it\n"_s);
    }

private:
    bool read(const QByteArray &content, int lines, QString *text)
    {
        QFile file(folder.filePath(u"log"_s));
        QString error;
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && (file.close(), true) &&
               readTail(file.fileName(), lines, text, &error);
    }

    QTemporaryDir folder;
};

ZARVO_TEST(TestLogTail)
#include "tst_logtail.moc"
