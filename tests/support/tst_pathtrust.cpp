// SPDX-License-Identifier: MIT
#include "support/pathtrust.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <sys/xattr.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestPathTrust : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void ownersAndModes_data();
    void ownersAndModes();
    void accessListMakesTheGroupOthers();
    void ownFileIsTrusted();
    void missingFileIsMissing();
    void missingFolderFails();
    void fileUnderAFileFails();
    void relativePathStartsHere();
    void folderThatOthersCanWriteTo_data();
    void folderThatOthersCanWriteTo();
    void ownFileInAStickyFolderIsTrusted();
    void foreignFileIsNotTrusted();
    void foreignFolderIsNotTrusted();
    void folderOfTheLinkCounts();
    void folderOfTheTargetCounts();
    void linksAreFollowed();
    void parentFolderOfALinkedFolderIsItsOwn();
    void danglingLinkNamesItsTarget();
    void circleOfLinksFails();
    void accessListOfARealFileCounts();

private:
    [[nodiscard]] QString path(const QString &name) const { return dir->filePath(name); }
    void setMode(const QString &name, mode_t mode) const
    {
        QCOMPARE(::chmod(QFile::encodeName(path(name)).constData(), mode), 0);
    }
    [[nodiscard]] PathTrust follow(const QString &name) { return followTrustedPath(path(name), &found, &error); }

    std::unique_ptr<QTemporaryDir> dir;
    FoundPath found;
    QString error;
};

namespace {

constexpr uid_t kUser = 1000;
constexpr gid_t kGroup = 1000;
constexpr uid_t kOther = 1001;

struct stat statusOf(mode_t mode, uid_t user, gid_t group)
{
    struct stat status = {};
    status.st_mode = mode;
    status.st_uid = user;
    status.st_gid = group;
    return status;
}

/** A POSIX access list that lets a named user write, as the kernel stores it. */
QByteArray accessListForUser(uid_t user)
{
    struct Entry
    {
        quint16 tag, rights;
        quint32 id;
    };
    const quint32 version = 2;
    const Entry entries[] = {
        {1, 7, 0xffffffff}, {2, 7, user}, {4, 5, 0xffffffff}, {16, 7, 0xffffffff}, {32, 5, 0xffffffff}};
    return QByteArray(reinterpret_cast<const char *>(&version), sizeof version) +
           QByteArray(reinterpret_cast<const char *>(entries), sizeof entries);
}

} // namespace

void TestPathTrust::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir(dir->path()).mkdir(u"folder"_s));
    putFile(path(u"folder/file"_s), "content");
    setMode(u"folder"_s, 0755);
    setMode(u"folder/file"_s, 0600);
    found = {};
    error.clear();
}

void TestPathTrust::cleanup()
{
    dir.reset();
}

void TestPathTrust::ownersAndModes_data()
{
    QTest::addColumn<mode_t>("mode");
    QTest::addColumn<uid_t>("owner");
    QTest::addColumn<gid_t>("group");
    QTest::addColumn<PathPart>("expected");
    const auto add = [](const char *name, mode_t mode, uid_t owner, gid_t group, PathPart expected) {
        QTest::newRow(name) << mode << owner << group << expected;
    };
    add("private file", S_IFREG | 0600, kUser, kGroup, PathPart::Trusted);
    add("readable file", S_IFREG | 0644, kUser, kGroup, PathPart::Trusted);
    add("file of root", S_IFREG | 0644, 0, 0, PathPart::Trusted);
    add("file of another user", S_IFREG | 0600, kOther, kGroup, PathPart::ForeignOwner);
    add("the private group writes", S_IFREG | 0660, kUser, kGroup, PathPart::Trusted);
    add("another group writes", S_IFREG | 0660, kUser, kOther, PathPart::Writable);
    add("root's group writes", S_IFREG | 0660, 0, 0, PathPart::Writable);
    add("the private group writes to a file of root", S_IFREG | 0660, 0, kGroup, PathPart::Trusted);
    add("everybody writes", S_IFREG | 0602, kUser, kGroup, PathPart::Writable);
    add("everybody writes, file with the sticky bit", S_IFREG | S_ISVTX | 0606, kUser, kGroup, PathPart::Writable);
    add("private folder", S_IFDIR | 0700, kUser, kGroup, PathPart::Trusted);
    add("folder of root", S_IFDIR | 0755, 0, 0, PathPart::Trusted);
    add("folder of another user", S_IFDIR | 0755, kOther, kOther, PathPart::ForeignOwner);
    add("sticky folder of another user", S_IFDIR | S_ISVTX | 0777, kOther, kOther, PathPart::ForeignOwner);
    add("folder, the private group writes", S_IFDIR | 0770, kUser, kGroup, PathPart::Trusted);
    add("folder, another group writes", S_IFDIR | 0770, kUser, kOther, PathPart::Writable);
    add("folder, everybody writes", S_IFDIR | 0777, kUser, kGroup, PathPart::Writable);
    add("sticky folder of root", S_IFDIR | S_ISVTX | 0777, 0, 0, PathPart::Shared);
    add("own sticky folder", S_IFDIR | S_ISVTX | 0777, kUser, kGroup, PathPart::Shared);
    add("sticky folder, another group writes", S_IFDIR | S_ISVTX | 0770, 0, kOther, PathPart::Shared);
    add("sticky folder where nobody writes", S_IFDIR | S_ISVTX | 0755, 0, 0, PathPart::Trusted);
    add("symlink", S_IFLNK | 0777, kUser, kGroup, PathPart::Trusted);
    add("symlink of root", S_IFLNK | 0777, 0, 0, PathPart::Trusted);
    add("symlink of another user", S_IFLNK | 0777, kOther, kOther, PathPart::ForeignOwner);
}

void TestPathTrust::ownersAndModes()
{
    QFETCH(const mode_t, mode);
    QFETCH(const uid_t, owner);
    QFETCH(const gid_t, group);
    QTEST(judgePathPart(statusOf(mode, owner, group), false, {kUser, kGroup}), "expected");
    if (group == kGroup && (mode & S_IWGRP) != 0 && (mode & S_IFMT) != S_IFLNK) {
        QVERIFY(judgePathPart(statusOf(mode, owner, group), false, {kUser, std::nullopt}) != PathPart::Trusted);
    }
}

void TestPathTrust::accessListMakesTheGroupOthers()
{
    const PathUser user = {kUser, kGroup};
    QCOMPARE(judgePathPart(statusOf(S_IFREG | 0660, kUser, kGroup), true, user), PathPart::Writable);
    QCOMPARE(judgePathPart(statusOf(S_IFREG | 0640, kUser, kGroup), true, user), PathPart::Trusted);
}

void TestPathTrust::ownFileIsTrusted()
{
    QCOMPARE(follow(u"folder/file"_s), PathTrust::Trusted);
    QCOMPARE(found.path, QFile::encodeName(QFileInfo(path(u"folder/file"_s)).canonicalFilePath()));
    QVERIFY(S_ISREG(found.status.st_mode));
    QVERIFY(!found.isInSharedFolder);
    QCOMPARE(follow(u"folder/../folder//./file"_s), PathTrust::Trusted);
    QCOMPARE(follow(u"folder"_s), PathTrust::Trusted);
    QVERIFY(S_ISDIR(found.status.st_mode));
}

void TestPathTrust::missingFileIsMissing()
{
    QCOMPARE(follow(u"folder/missing"_s), PathTrust::Missing);
    QCOMPARE(error, u"Failed to open the file \"%1\": No such file or directory"_s.arg(path(u"folder/missing"_s)));
    QCOMPARE(found.path, QFile::encodeName(QDir(dir->path()).canonicalPath() + u"/folder/missing"_s));
    QVERIFY(!found.isInSharedFolder);
    setMode(u"folder"_s, 01777);
    QCOMPARE(follow(u"folder/missing"_s), PathTrust::Missing);
    QVERIFY(found.isInSharedFolder);
}

void TestPathTrust::missingFolderFails()
{
    QCOMPARE(follow(u"missing/file"_s), PathTrust::Failed);
    QCOMPARE(error, u"Failed to open the file \"%1\": No such file or directory"_s.arg(path(u"missing/file"_s)));
}

void TestPathTrust::fileUnderAFileFails()
{
    QCOMPARE(follow(u"folder/file/more"_s), PathTrust::Failed);
    QVERIFY(error.endsWith(u"Not a directory"_s));
}

void TestPathTrust::relativePathStartsHere()
{
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(dir->path()));
    const PathTrust trust = followTrustedPath(u"folder/file"_s, &found, &error);
    QVERIFY(QDir::setCurrent(previous));
    QCOMPARE(trust, PathTrust::Trusted);
}

void TestPathTrust::folderThatOthersCanWriteTo_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("file");
    QTest::newRow("its own") << u"folder"_s << u"folder/file"_s;
    QTest::newRow("above") << u"."_s << u"folder/file"_s;
    QTest::newRow("of a missing file") << u"folder"_s << u"folder/missing"_s;
    QTest::newRow("left by two dots") << u"folder"_s << u"folder/../other"_s;
}

void TestPathTrust::folderThatOthersCanWriteTo()
{
    QFETCH(const QString, name);
    QFETCH(const QString, file);
    setMode(name, 0777);
    QCOMPARE(follow(file), PathTrust::Untrusted);
    QCOMPARE(error, u"The file \"%1\" is not used: others can write to \"%2\" (mode 0777)"_s.arg(
                        path(file), QFileInfo(path(name)).canonicalFilePath()));
}

void TestPathTrust::ownFileInAStickyFolderIsTrusted()
{
    setMode(u"folder"_s, 01777);
    QCOMPARE(follow(u"folder/file"_s), PathTrust::Trusted);
    QVERIFY(found.isInSharedFolder);
    setMode(u"folder/file"_s, 0666);
    QCOMPARE(follow(u"folder/file"_s), PathTrust::Untrusted);
}

void TestPathTrust::foreignFileIsNotTrusted()
{
    if (::geteuid() != 0) {
        QSKIP("Only root can create a file of another user");
    }
    QCOMPARE(::chown(QFile::encodeName(path(u"folder/file"_s)).constData(), kOther, kOther), 0);
    QCOMPARE(follow(u"folder/file"_s), PathTrust::Untrusted);
    QCOMPARE(error, u"The file \"%1\" is not used: \"%2\" belongs to another user (1001)"_s.arg(
                        path(u"folder/file"_s), QFileInfo(path(u"folder/file"_s)).canonicalFilePath()));
}

void TestPathTrust::foreignFolderIsNotTrusted()
{
    if (::geteuid() != 0) {
        QSKIP("Only root can create a folder of another user");
    }
    QCOMPARE(::chown(QFile::encodeName(path(u"folder"_s)).constData(), kOther, kOther), 0);
    QCOMPARE(follow(u"folder/file"_s), PathTrust::Untrusted);
}

void TestPathTrust::folderOfTheLinkCounts()
{
    QVERIFY(QDir(dir->path()).mkdir(u"links"_s));
    QVERIFY(QFile::link(path(u"folder/file"_s), path(u"links/file"_s)));
    QCOMPARE(follow(u"links/file"_s), PathTrust::Trusted);
    setMode(u"links"_s, 0777);
    QCOMPARE(follow(u"links/file"_s), PathTrust::Untrusted);
}

void TestPathTrust::folderOfTheTargetCounts()
{
    QVERIFY(QFile::link(u"folder/file"_s, path(u"link"_s)));
    QCOMPARE(follow(u"link"_s), PathTrust::Trusted);
    setMode(u"folder"_s, 0777);
    QCOMPARE(follow(u"link"_s), PathTrust::Untrusted);
}

void TestPathTrust::linksAreFollowed()
{
    QVERIFY(QFile::link(path(u"folder"_s), path(u"absolute"_s)));
    QVERIFY(QFile::link(u"../absolute"_s, path(u"folder/relative"_s)));
    QCOMPARE(follow(u"absolute/relative/file"_s), PathTrust::Trusted);
    QCOMPARE(found.path, QFile::encodeName(QFileInfo(path(u"folder/file"_s)).canonicalFilePath()));
}

void TestPathTrust::parentFolderOfALinkedFolderIsItsOwn()
{
    QVERIFY(QDir(dir->path()).mkpath(u"deep/inner"_s));
    putFile(path(u"deep/file"_s), "");
    setMode(u"deep/file"_s, 0600);
    QVERIFY(QFile::link(path(u"deep/inner"_s), path(u"link"_s)));
    QCOMPARE(follow(u"link/../file"_s), PathTrust::Trusted);
    QCOMPARE(found.path, QFile::encodeName(QFileInfo(path(u"deep/file"_s)).canonicalFilePath()));
}

void TestPathTrust::danglingLinkNamesItsTarget()
{
    QVERIFY(QFile::link(u"folder/missing"_s, path(u"link"_s)));
    QCOMPARE(follow(u"link"_s), PathTrust::Missing);
    QCOMPARE(found.path, QFile::encodeName(QDir(dir->path()).canonicalPath() + u"/folder/missing"_s));
}

void TestPathTrust::circleOfLinksFails()
{
    QVERIFY(QFile::link(u"second"_s, path(u"first"_s)));
    QVERIFY(QFile::link(u"first"_s, path(u"second"_s)));
    QCOMPARE(follow(u"first"_s), PathTrust::Failed);
    QVERIFY(error.endsWith(u"Too many levels of symbolic links"_s));
}

void TestPathTrust::accessListOfARealFileCounts()
{
    const QByteArray file = QFile::encodeName(path(u"folder/file"_s));
    const QByteArray list = accessListForUser(kOther);
    if (::setxattr(file.constData(), "system.posix_acl_access", list.constData(), static_cast<size_t>(list.size()),
                   0) != 0) {
        QSKIP("The file system has no access lists");
    }
    QCOMPARE(follow(u"folder/file"_s), PathTrust::Untrusted);
}

ZARVO_TEST(TestPathTrust)

#include "tst_pathtrust.moc"
