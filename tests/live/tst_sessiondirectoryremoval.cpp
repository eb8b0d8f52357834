// SPDX-License-Identifier: MIT
#include "live/sessiondirectoryremoval.h"
#include "tests/helpers/agentsocket.h"
#include "tests/helpers/files.h"
#include "tests/live/filesystemuser.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestSessionDirectoryRemoval : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void emptyDirectoryIsRemoved();
    void directoryIsRemovedWithItsFiles();
    void fileWithoutPermissionsIsRemoved();
    void hiddenFilesAreRemoved();
    void danglingSymlinkIsRemoved();
    void symlinkToAFileIsRemovedAndTheFileStays();
    void socketIsRemoved();
    void fifoIsRemoved();
    void subdirectoryKeepsTheDirectory_data();
    void subdirectoryKeepsTheDirectory();
    void symlinkToADirectoryIsNotFollowed();
    void symlinkInPlaceOfTheDirectoryIsNotFollowed();
    void missingDirectoryIsAFailure();
    void fileThatCannotBeRemovedIsNamed();
    void firstFailureEndsTheRemoval();
    void directoryThatCannotBeRemovedIsNamed();
    void otherDirectoriesStay();

private:
    [[nodiscard]] QString inside(const QString &name) const { return directory + u'/' + name; }

    std::unique_ptr<QTemporaryDir> folder;
    QString directory;
    QString error;
};

void TestSessionDirectoryRemoval::init()
{
    folder = std::make_unique<QTemporaryDir>();
    directory = folder->filePath(u"C-0123456789abcdef0123456789abcdef"_s);
    QVERIFY(QDir().mkdir(directory));
    error = u"untouched"_s;
}

void TestSessionDirectoryRemoval::emptyDirectoryIsRemoved()
{
    QVERIFY(removeSessionDirectory(directory, error));
    QVERIFY(!QFileInfo::exists(directory));
    QCOMPARE(error, u"untouched"_s);
}

void TestSessionDirectoryRemoval::directoryIsRemovedWithItsFiles()
{
    for (const QString &name : {u"display"_s, u"name"_s, u"server log"_s, u"Gr\u00fc\u00dfe"_s}) {
        putFile(inside(name), "content");
    }
    QVERIFY(removeSessionDirectory(directory, error));
    QVERIFY(!QFileInfo::exists(directory));
}

void TestSessionDirectoryRemoval::fileWithoutPermissionsIsRemoved()
{
    putFile(inside(u"authority"_s), "cookie");
    QCOMPARE(::chmod(QFile::encodeName(inside(u"authority"_s)).constData(), 0), 0);
    QVERIFY(removeSessionDirectory(directory, error));
    QVERIFY(!QFileInfo::exists(directory));
}

void TestSessionDirectoryRemoval::hiddenFilesAreRemoved()
{
    putFile(inside(u".hidden"_s), "content");
    putFile(inside(u"..twice"_s), "content");
    QVERIFY(removeSessionDirectory(directory, error));
    QVERIFY(!QFileInfo::exists(directory));
}

void TestSessionDirectoryRemoval::danglingSymlinkIsRemoved()
{
    QVERIFY(QFile::link(inside(u"gone"_s), inside(u"link"_s)));
    QVERIFY(removeSessionDirectory(directory, error));
    QVERIFY(!QFileInfo::exists(directory));
}

void TestSessionDirectoryRemoval::symlinkToAFileIsRemovedAndTheFileStays()
{
    const QString file = folder->filePath(u"outside"_s);
    putFile(file, "content");
    QVERIFY(QFile::link(file, inside(u"link"_s)));
    QVERIFY(removeSessionDirectory(directory, error));
    QVERIFY(!QFileInfo::exists(directory));
    QCOMPARE(contentOf(file), QByteArray("content"));
}

void TestSessionDirectoryRemoval::socketIsRemoved()
{
    const AgentSocket socket(inside(u"socket"_s));
    QVERIFY(removeSessionDirectory(directory, error));
    QVERIFY(!QFileInfo::exists(directory));
}

void TestSessionDirectoryRemoval::fifoIsRemoved()
{
    QCOMPARE(::mkfifo(QFile::encodeName(inside(u"fifo"_s)).constData(), 0600), 0);
    QVERIFY(removeSessionDirectory(directory, error));
    QVERIFY(!QFileInfo::exists(directory));
}

void TestSessionDirectoryRemoval::subdirectoryKeepsTheDirectory_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("visible") << u"subdirectory"_s;
    QTest::newRow("hidden") << u".subdirectory"_s;
}

void TestSessionDirectoryRemoval::subdirectoryKeepsTheDirectory()
{
    QFETCH(QString, name);
    QVERIFY(QDir(directory).mkdir(name));
    putFile(inside(name) + u"/file"_s, "content");
    putFile(inside(u"display"_s), "100");
    QVERIFY(!removeSessionDirectory(directory, error));
    QCOMPARE(error, u"Failed to remove the directory \"%1\""_s.arg(directory));
    QVERIFY(!QFileInfo::exists(inside(u"display"_s)));
    QCOMPARE(contentOf(inside(name) + u"/file"_s), QByteArray("content"));
}

void TestSessionDirectoryRemoval::symlinkToADirectoryIsNotFollowed()
{
    const QString outside = folder->filePath(u"outside"_s);
    QVERIFY(QDir().mkdir(outside));
    putFile(outside + u"/file"_s, "content");
    QVERIFY(QFile::link(outside, inside(u"link"_s)));
    QVERIFY(!removeSessionDirectory(directory, error));
    QCOMPARE(error, u"Failed to remove the directory \"%1\""_s.arg(directory));
    QCOMPARE(contentOf(outside + u"/file"_s), QByteArray("content"));
}

void TestSessionDirectoryRemoval::symlinkInPlaceOfTheDirectoryIsNotFollowed()
{
    putFile(inside(u"letter"_s), "content");
    const QString link = folder->filePath(u"link"_s);
    QVERIFY(QFile::link(directory, link));
    QVERIFY(!removeSessionDirectory(link, error));
    QCOMPARE(error, u"Failed to remove the directory \"%1\""_s.arg(link));
    QCOMPARE(contentOf(inside(u"letter"_s)), QByteArray("content"));
    QVERIFY(QFileInfo(link).isSymLink());
}

void TestSessionDirectoryRemoval::missingDirectoryIsAFailure()
{
    const QString missing = folder->filePath(u"missing"_s);
    QVERIFY(!removeSessionDirectory(missing, error));
    QCOMPARE(error, u"Failed to remove the directory \"%1\""_s.arg(missing));
}

void TestSessionDirectoryRemoval::fileThatCannotBeRemovedIsNamed()
{
    putFile(inside(u"display"_s), "100");
    QCOMPARE(::chmod(QFile::encodeName(folder->path()).constData(), 0755), 0);
    QCOMPARE(::chmod(QFile::encodeName(directory).constData(), 0555), 0);
    {
        const OrdinaryFilesystemUser user;
        QVERIFY(!removeSessionDirectory(directory, error));
    }
    QCOMPARE(error, u"Failed to remove the file \"%1\""_s.arg(inside(u"display"_s)));
    QCOMPARE(contentOf(inside(u"display"_s)), QByteArray("100"));

    QCOMPARE(::chmod(QFile::encodeName(directory).constData(), 0755), 0);
    QVERIFY(removeSessionDirectory(directory, error));
}

void TestSessionDirectoryRemoval::firstFailureEndsTheRemoval()
{
    // The directory is so deep that the path of a file with a long name exceeds the system's limit.
    QString deep = directory;
    while (deep.size() < 3800) {
        deep += u'/' + QString(200, u'd');
    }
    QVERIFY(QDir().mkpath(deep));
    const QString longName(250, u'f');
    const QByteArray encodedName = longName.toUtf8();
    const int descriptor = ::open(QFile::encodeName(deep).constData(), O_DIRECTORY | O_CLOEXEC);
    for (int number = 0; number < 100; ++number) {
        putFile(deep + u'/' + QString::number(number), "content");
        if (number == 50) {
            ::close(::openat(descriptor, encodedName.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        }
    }
    const QDir::Filters everyFile = QDir::Files | QDir::Hidden | QDir::System;
    QStringList expected = QDir(deep, QString(), QDir::Unsorted, everyFile).entryList();
    const qsizetype failing = expected.indexOf(longName);
    expected.remove(0, std::max<qsizetype>(0, failing));

    const bool isRemoved = removeSessionDirectory(deep, error);
    QStringList left = QDir(deep, QString(), QDir::Unsorted, everyFile).entryList();
    ::unlinkat(descriptor, encodedName.constData(), 0);
    ::close(descriptor);
    QVERIFY(failing >= 0);
    QVERIFY2(expected.size() > 1, "The order of the files leaves nothing to test");
    QVERIFY(!isRemoved);
    QCOMPARE(error, u"Failed to remove the file \"%1/%2\""_s.arg(deep, longName));
    left.sort();
    expected.sort();
    QCOMPARE(left, expected);
}

void TestSessionDirectoryRemoval::directoryThatCannotBeRemovedIsNamed()
{
    const QString parent = folder->filePath(u"parent"_s);
    const QString child = parent + u"/child"_s;
    QVERIFY(QDir().mkpath(child));
    QCOMPARE(::chmod(QFile::encodeName(folder->path()).constData(), 0755), 0);
    QCOMPARE(::chmod(QFile::encodeName(child).constData(), 0777), 0);
    QCOMPARE(::chmod(QFile::encodeName(parent).constData(), 0555), 0);
    putFile(child + u"/display"_s, "100");
    {
        const OrdinaryFilesystemUser user;
        QVERIFY(!removeSessionDirectory(child, error));
    }
    QCOMPARE(error, u"Failed to remove the directory \"%1\""_s.arg(child));
    QVERIFY(!QFileInfo::exists(child + u"/display"_s));
    QCOMPARE(::chmod(QFile::encodeName(parent).constData(), 0755), 0);
}

void TestSessionDirectoryRemoval::otherDirectoriesStay()
{
    const QString neighbour = folder->filePath(u"C-0123456789abcdef0123456789abcdee"_s);
    QVERIFY(QDir().mkdir(neighbour));
    putFile(neighbour + u"/display"_s, "100");
    putFile(folder->filePath(u"file"_s), "content");
    QVERIFY(removeSessionDirectory(directory, error));
    QCOMPARE(contentOf(neighbour + u"/display"_s), QByteArray("100"));
    QCOMPARE(contentOf(folder->filePath(u"file"_s)), QByteArray("content"));
}

ZARVO_TEST(TestSessionDirectoryRemoval)
#include "tst_sessiondirectoryremoval.moc"
