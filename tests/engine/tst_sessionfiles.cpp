// SPDX-License-Identifier: MIT
#include "engine/sessionfiles.h"
#include "tests/helpers/files.h"
#include "tests/helpers/fulldisk.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <limits>

#include <sys/resource.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestSessionFiles : public QObject
{
    Q_OBJECT

private slots:
    void numberIsWrittenInDecimal_data();
    void numberIsWrittenInDecimal();
    void textIsWrittenUnchanged_data();
    void textIsWrittenUnchanged();
    void writtenFileIsPrivate_data();
    void writtenFileIsPrivate();
    void earlierContentIsGone();
    void directoryCannotBeWritten();
    void missingFolderCannotBeWrittenTo();
    void nothingIsWrittenToAFileThatCannotBeMadePrivate();
    void fullDiskIsReportedAndLeavesAPrivateFile();
    void displayNumberIsReadAndCutToItsSize_data();
    void displayNumberIsReadAndCutToItsSize();
    void numberIsReadAndCutToItsSize_data();
    void numberIsReadAndCutToItsSize();
    void textWithoutANumberIsNotRead_data();
    void textWithoutANumberIsNotRead();
    void firstWordIsRead_data();
    void firstWordIsRead();
    void fileWithoutAWordIsNotRead_data();
    void fileWithoutAWordIsNotRead();
    void endlessWordIsCut();
    void missingFileIsNotRead();
    void pipeDoesNotBlock();
    void directoryIsNotRead();

private:
    QTemporaryDir folder;
    const QString path = folder.filePath(u"value"_s);
    const QString untouched = u"untouched"_s;
};

void TestSessionFiles::numberIsWrittenInDecimal_data()
{
    QTest::addColumn<qint64>("number");
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("0") << qint64(0) << QByteArray("0");
    QTest::newRow("100") << qint64(100) << QByteArray("100");
    QTest::newRow("-1") << qint64(-1) << QByteArray("-1");
    QTest::newRow("65535") << qint64(65535) << QByteArray("65535");
    QTest::newRow("pid") << qint64(4194304) << QByteArray("4194304");
    QTest::newRow("largest") << std::numeric_limits<qint64>::max() << QByteArray("9223372036854775807");
}

void TestSessionFiles::numberIsWrittenInDecimal()
{
    QFETCH(qint64, number);
    QString error = untouched;
    QVERIFY(writeNumberFile(path, number, &error));
    QTEST(contentOf(path), "content");
    QCOMPARE(error, untouched);
}

void TestSessionFiles::textIsWrittenUnchanged_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QString() << QByteArray("");
    QTest::newRow("word") << u"desktop"_s << QByteArray("desktop");
    QTest::newRow("blanks and line feeds") << u"{\n}"_s << QByteArray("{\n}");
    QTest::newRow("two bytes in UTF-8") << u"\u00e4"_s << QByteArray("\xc3\xa4");
    QTest::newRow("four bytes in UTF-8") << u"\U0001f600"_s << QByteArray("\xf0\x9f\x98\x80");
    QTest::newRow("long") << QString(100000, u'x') << QByteArray(100000, 'x');
}

void TestSessionFiles::textIsWrittenUnchanged()
{
    QFETCH(QString, text);
    QString error = untouched;
    QVERIFY(writeTextFile(path, text, &error));
    QTEST(contentOf(path), "content");
    QCOMPARE(error, untouched);
}

void TestSessionFiles::writtenFileIsPrivate_data()
{
    QTest::addColumn<int>("earlierMode");
    QTest::newRow("new file") << -1;
    QTest::newRow("readable for all") << 0644;
    QTest::newRow("writable for all") << 0666;
    QTest::newRow("executable") << 0755;
    QTest::newRow("private") << 0600;
}

void TestSessionFiles::writtenFileIsPrivate()
{
    QFETCH(int, earlierMode);
    QFile::remove(path);
    if (earlierMode != -1) {
        putFile(path, "earlier");
        QCOMPARE(::chmod(QFile::encodeName(path).constData(), static_cast<mode_t>(earlierMode)), 0);
    }
    QString error;
    QVERIFY(writeTextFile(path, u"secret"_s, &error));
    QCOMPARE(modeOf(path), 0600);
    QVERIFY(writeNumberFile(path, 1, &error));
    QCOMPARE(modeOf(path), 0600);
}

void TestSessionFiles::earlierContentIsGone()
{
    QString error;
    QVERIFY(writeTextFile(path, u"a long earlier text"_s, &error));
    QVERIFY(writeNumberFile(path, 7, &error));
    QCOMPARE(contentOf(path), "7");
    QVERIFY(writeTextFile(path, QString(), &error));
    QCOMPARE(contentOf(path), "");
}

void TestSessionFiles::directoryCannotBeWritten()
{
    QString error;
    QVERIFY(!writeTextFile(folder.path(), u"text"_s, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": Is a directory"_s.arg(folder.path()));
    error.clear();
    QVERIFY(!writeNumberFile(folder.path(), 1, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": Is a directory"_s.arg(folder.path()));
}

void TestSessionFiles::missingFolderCannotBeWrittenTo()
{
    const QString missing = folder.filePath(u"missing/value"_s);
    QString error;
    QVERIFY(!writeNumberFile(missing, 1, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": No such file or directory"_s.arg(missing));
}

void TestSessionFiles::nothingIsWrittenToAFileThatCannotBeMadePrivate()
{
    // This file can be written, but its mode cannot be changed.
    const QString fixed = u"/proc/self/comm"_s;
    const QByteArray before = contentOf(fixed);
    QString error;
    QVERIFY(!writeTextFile(fixed, u"changed"_s, &error));
    QCOMPARE(error, u"Failed to set permissions on the file \"%1\": Operation not permitted"_s.arg(fixed));
    QCOMPARE(contentOf(fixed), before);
}

void TestSessionFiles::fullDiskIsReportedAndLeavesAPrivateFile()
{
    QFile::remove(path);
    QString error;
    bool written = true;
    {
        const FullDisk fullDisk;
        written = writeTextFile(path, u"secret"_s, &error);
    }
    QVERIFY(!written);
    QCOMPARE(error, u"Failed to write to the file \"%1\": File too large"_s.arg(path));
    QCOMPARE(modeOf(path), 0600);
}

void TestSessionFiles::displayNumberIsReadAndCutToItsSize_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("number");
    QTest::newRow("0") << QByteArray("0") << 0;
    QTest::newRow("100") << QByteArray("100") << 100;
    QTest::newRow("line feed behind") << QByteArray("100\n") << 100;
    QTest::newRow("blanks before") << QByteArray(" \n\t100") << 100;
    QTest::newRow("more behind") << QByteArray("100 200") << 100;
    QTest::newRow("65535") << QByteArray("65535") << 65535;
    QTest::newRow("65536") << QByteArray("65536") << 0;
    QTest::newRow("65537") << QByteArray("65537") << 1;
    QTest::newRow("-1") << QByteArray("-1") << 65535;
}

void TestSessionFiles::displayNumberIsReadAndCutToItsSize()
{
    QFETCH(QByteArray, content);
    putFile(path, content);
    quint16 value = 4711;
    QString error = untouched;
    QVERIFY(readDisplayFile(path, &value, &error));
    QTEST(static_cast<int>(value), "number");
    QCOMPARE(error, untouched);
}

void TestSessionFiles::numberIsReadAndCutToItsSize_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<qint32>("number");
    QTest::newRow("0") << QByteArray("0") << 0;
    QTest::newRow("-1") << QByteArray("-1") << -1;
    QTest::newRow("pid and line feed") << QByteArray("4194304\n") << 4194304;
    QTest::newRow("2^31-1") << QByteArray("2147483647") << std::numeric_limits<qint32>::max();
    QTest::newRow("2^31") << QByteArray("2147483648") << std::numeric_limits<qint32>::min();
    QTest::newRow("2^32") << QByteArray("4294967296") << 0;
    QTest::newRow("-2^31") << QByteArray("-2147483648") << std::numeric_limits<qint32>::min();
}

void TestSessionFiles::numberIsReadAndCutToItsSize()
{
    QFETCH(QByteArray, content);
    putFile(path, content);
    qint32 value = 4711;
    QString error = untouched;
    QVERIFY(readNumberFile(path, &value, &error));
    QTEST(value, "number");
    QCOMPARE(error, untouched);
}

void TestSessionFiles::textWithoutANumberIsNotRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("blank") << QByteArray(" ");
    QTest::newRow("word") << QByteArray("ten");
    QTest::newRow("sign alone") << QByteArray("-");
}

void TestSessionFiles::textWithoutANumberIsNotRead()
{
    QFETCH(QByteArray, content);
    putFile(path, content);
    const QString expected = u"Failed to read from the file \"%1\": Unknown error"_s.arg(path);

    quint16 display = 4711;
    QString error;
    QVERIFY(!readDisplayFile(path, &display, &error));
    QCOMPARE(error, expected);
    QCOMPARE(display, 4711);

    qint32 number = 4711;
    error.clear();
    QVERIFY(!readNumberFile(path, &number, &error));
    QCOMPARE(error, expected);
    QCOMPARE(number, 4711);
}

void TestSessionFiles::firstWordIsRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("word");
    QTest::newRow("word") << QByteArray("desktop") << u"desktop"_s;
    QTest::newRow("two words") << QByteArray("my session") << u"my"_s;
    QTest::newRow("blanks around") << QByteArray(" \t\nmy \n") << u"my"_s;
    QTest::newRow("UTF-8") << QByteArray("\xc3\xa4\xf0\x9f\x98\x80 b") << u"\u00e4\U0001f600"_s;
    QTest::newRow("long") << QByteArray(100000, 'x') << QString(100000, u'x');
}

void TestSessionFiles::firstWordIsRead()
{
    QFETCH(QByteArray, content);
    putFile(path, content);
    QString value;
    QString error = untouched;
    QVERIFY(readWordFile(path, &value, &error));
    QTEST(value, "word");
    QCOMPARE(error, untouched);
}

void TestSessionFiles::fileWithoutAWordIsNotRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("blanks") << QByteArray(" \n\t ");
}

void TestSessionFiles::fileWithoutAWordIsNotRead()
{
    QFETCH(QByteArray, content);
    putFile(path, content);
    QString value = untouched;
    QString error;
    QVERIFY(!readWordFile(path, &value, &error));
    QCOMPARE(error, u"Failed to read from the file \"%1\": Unknown error"_s.arg(path));
    QCOMPARE(value, untouched);
}

void TestSessionFiles::endlessWordIsCut()
{
    // The file is one word of 4 MiB, longer than the limit.
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.resize(4 * 1024 * 1024));
    QString word;
    QString error;
    QVERIFY(readWordFile(path, &word, &error));
    QCOMPARE(word.size(), 1024 * 1024);
}

void TestSessionFiles::missingFileIsNotRead()
{
    const QString missing = folder.filePath(u"missing"_s);
    const QString expected = u"Failed to open the file \"%1\": No such file or directory"_s.arg(missing);
    QString error;
    quint16 display = 4711;
    QVERIFY(!readDisplayFile(missing, &display, &error));
    QCOMPARE(error, expected);
    QCOMPARE(display, 4711);
    error.clear();
    qint32 number = 4711;
    QVERIFY(!readNumberFile(missing, &number, &error));
    QCOMPARE(error, expected);
    QCOMPARE(number, 4711);
    error.clear();
    QString word = untouched;
    QVERIFY(!readWordFile(missing, &word, &error));
    QCOMPARE(error, expected);
    QCOMPARE(word, untouched);
}

void TestSessionFiles::pipeDoesNotBlock()
{
    const QString pipe = folder.filePath(u"pipe"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    QString error;
    qint32 number = 4711;
    QVERIFY(!readNumberFile(pipe, &number, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": Not a regular file"_s.arg(pipe));
    error.clear();
    QVERIFY(!writeNumberFile(pipe, 1, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": Not a regular file"_s.arg(pipe));
    QCOMPARE(number, 4711);
}

void TestSessionFiles::directoryIsNotRead()
{
    QString error;
    qint32 number = 4711;
    QVERIFY(!readNumberFile(folder.path(), &number, &error));
    QFile probe(folder.path()); // for Qt's text of the error
    QVERIFY(!probe.open(QIODevice::ReadOnly));
    QCOMPARE(error, u"Failed to open the file \"%1\": %2"_s.arg(folder.path(), probe.errorString()));
    QCOMPARE(number, 4711);
}

ZARVO_TEST(TestSessionFiles)

#include "tst_sessionfiles.moc"
