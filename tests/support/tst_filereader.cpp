// SPDX-License-Identifier: MIT
#include "support/filereader.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <atomic>
#include <thread>

#include <unistd.h>

using namespace Qt::StringLiterals;

class TestFileReader : public QObject
{
    Q_OBJECT

private slots:
    void contentIsCutAtTheLimit_data();
    void contentIsCutAtTheLimit();
    void bytesAreReadAsTheyAre();
    void failureNamesTheFileAndTheReason_data();
    void failureNamesTheFileAndTheReason();
    void missingFileIsToldFromOtherFailures_data();
    void missingFileIsToldFromOtherFailures();
    void onlyTheWantedBytesAreReadFromADevice();
    void fileThatComesAndGoesIsNeverSpecial();
};

namespace {

/** Qt's own text, which differs between versions. */
QString whyADirectoryDoesNotOpen()
{
    QFile directory(QDir::rootPath());
    [[maybe_unused]] const bool opened = directory.open(QIODevice::ReadOnly);
    return directory.errorString();
}

void fill(const QTemporaryDir &dir)
{
    putFile(dir.filePath(u"file"_s), "x");
    QVERIFY(QDir(dir.path()).mkdir(u"directory"_s));
    QVERIFY(QFile::link(u"nowhere"_s, dir.filePath(u"link"_s)));
}

} // namespace

void TestFileReader::contentIsCutAtTheLimit_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("maxSize");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("empty file") << QByteArray("") << 10 << QByteArray("");
    QTest::newRow("one below the limit") << QByteArray("123456789") << 10 << QByteArray("123456789");
    QTest::newRow("the limit") << QByteArray("1234567890") << 10 << QByteArray("1234567890");
    QTest::newRow("one over the limit") << QByteArray("1234567890A") << 10 << QByteArray("1234567890");
    QTest::newRow("limit of one byte") << QByteArray("12") << 1 << QByteArray("1");
    QTest::newRow("limit of no bytes") << QByteArray("12") << 0 << QByteArray("");
    // More than any buffer in between can hold.
    const QByteArray large = QByteArray(3 * 1024 * 1024, 'a') + 'b';
    QTest::newRow("large, one below") << large << static_cast<int>(large.size()) + 1 << large;
    QTest::newRow("large, at the limit") << large << static_cast<int>(large.size()) << large;
    QTest::newRow("large, one over") << large << static_cast<int>(large.size()) - 1 << large.chopped(1);
}

void TestFileReader::contentIsCutAtTheLimit()
{
    QFETCH(const QByteArray, content);
    QFETCH(const int, maxSize);
    QFETCH(const QByteArray, expected);
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    putFile(path, content);

    QByteArray data = "before";
    QString error = u"untouched"_s;
    QVERIFY(readFile(path, maxSize, &data, &error));
    QVERIFY(data == expected);
    QCOMPARE(error, u"untouched"_s);
}

void TestFileReader::bytesAreReadAsTheyAre()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    const QByteArray content("a\r\nb\0c\x1a\xff\xfe\n\n", 12);
    putFile(path, content);
    QByteArray data;
    QString error;
    QVERIFY(readFile(path, 100, &data, &error));
    QCOMPARE(data, content);
}

void TestFileReader::failureNamesTheFileAndTheReason_data()
{
    QTest::addColumn<QString>("name"); // a relative name is one in the test's directory
    QTest::addColumn<QString>("pattern");
    QTest::newRow("missing") << u"missing"_s << u"Failed to open the file \"%1\": No such file or directory"_s;
    QTest::newRow("directory missing") << u"no/file"_s
                                       << u"Failed to open the file \"%1\": No such file or directory"_s;
    QTest::newRow("file as directory") << u"file/x"_s << u"Failed to open the file \"%1\": Not a directory"_s;
    QTest::newRow("directory") << u"directory"_s
                               << QString(u"Failed to open the file \"%1\": "_s + whyADirectoryDoesNotOpen());
    QTest::newRow("dangling link") << u"link"_s << u"Failed to open the file \"%1\": No such file or directory"_s;
    QTest::newRow("name with place markers")
        << u"%2 %1"_s << u"Failed to open the file \"%1\": No such file or directory"_s;
    // Reading fails, because nothing is mapped at address 0.
    QTest::newRow("opens and cannot be read")
        << u"/proc/self/mem"_s << u"Failed to read from the file \"%1\": Input/output error"_s;
}

void TestFileReader::failureNamesTheFileAndTheReason()
{
    QFETCH(const QString, name);
    QFETCH(const QString, pattern);
    const QTemporaryDir dir;
    fill(dir);
    const QString path = QDir(dir.path()).filePath(name);

    QByteArray data = "untouched";
    QString error;
    QVERIFY(!readFile(path, 100, &data, &error));
    QCOMPARE(error, QString(pattern).replace(u"%1"_s, path));
    QCOMPARE(data, "untouched"_ba);
}

void TestFileReader::missingFileIsToldFromOtherFailures_data()
{
    QTest::addColumn<QString>("name"); // a relative name is one in the test's directory
    QTest::addColumn<FileReading>("expected");
    QTest::newRow("there") << u"file"_s << FileReading::Done;
    QTest::newRow("missing") << u"missing"_s << FileReading::Missing;
    QTest::newRow("directory missing") << u"no/file"_s << FileReading::Missing;
    QTest::newRow("dangling link") << u"link"_s << FileReading::Missing;
    QTest::newRow("file as directory") << u"file/x"_s << FileReading::Failed;
    QTest::newRow("directory") << u"directory"_s << FileReading::Failed;
    QTest::newRow("opens and cannot be read") << u"/proc/self/mem"_s << FileReading::Failed;
}

void TestFileReader::missingFileIsToldFromOtherFailures()
{
    QFETCH(const QString, name);
    QFETCH(const FileReading, expected);
    const QTemporaryDir dir;
    fill(dir);
    QByteArray data;
    QString error;
    QCOMPARE(readFileIfThere(QDir(dir.path()).filePath(name), 100, &data, &error), expected);
    QCOMPARE(error.isEmpty(), expected == FileReading::Done);
}

void TestFileReader::onlyTheWantedBytesAreReadFromADevice()
{
    std::array<int, 2> ends{};
    QCOMPARE(::pipe(ends.data()), 0);
    QCOMPARE(::write(ends[1], "0123456789", 10), 10);
    ::close(ends[1]);

    QByteArray data;
    QString error;
    QVERIFY2(readFile(u"/proc/self/fd/%1"_s.arg(ends[0]), 4, &data, &error), qPrintable(error));
    QCOMPARE(data, "0123"_ba);
    std::array<char, 16> rest{};
    const ssize_t length = ::read(ends[0], rest.data(), rest.size());
    ::close(ends[0]);
    QCOMPARE(QByteArray(rest.data(), length), "456789"_ba);
}

void TestFileReader::fileThatComesAndGoesIsNeverSpecial()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    std::atomic_bool isDone = false;
    std::thread other([&] {
        while (!isDone) {
            putFile(path, "x");
            QFile::remove(path);
        }
    });
    int specials = 0;
    for (int i = 0; i < 20'000; ++i) {
        specials += isSpecialFile(path) ? 1 : 0;
    }
    isDone = true;
    other.join();
    QCOMPARE(specials, 0);
}

ZARVO_TEST(TestFileReader)

#include "tst_filereader.moc"
