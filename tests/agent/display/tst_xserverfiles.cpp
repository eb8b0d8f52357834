// SPDX-License-Identifier: MIT
#include "agent/display/xserverfiles.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class XServerFilesTest final : public QObject
{
    Q_OBJECT

private:
    static constexpr pid_t kXServer = 1234;

    std::unique_ptr<QTemporaryDir> directory;

    QString lockPath() const { return directory->filePath(u".X7-lock"_s); }
    QString socketPath() const { return directory->filePath(u".X11-unix/X7"_s); }
    void remove(pid_t xServer) { removeXServerFiles(7, xServer, directory->path()); }

    [[nodiscard]] bool write(const QString &path, const QByteArray &text)
    {
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
    }

private slots:
    void init()
    {
        directory = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir(directory->path()).mkdir(u".X11-unix"_s));
        QVERIFY(write(socketPath(), {}));
    }

    void filesOfTheXServerAreRemoved()
    {
        QVERIFY(write(lockPath(), "      1234\n"));
        QVERIFY(write(directory->filePath(u".X8-lock"_s), "      1234\n"));
        remove(kXServer);
        QVERIFY(!QFileInfo::exists(lockPath()));
        QVERIFY(!QFileInfo::exists(socketPath()));
        QVERIFY(QFileInfo::exists(directory->filePath(u".X8-lock"_s)));
        remove(kXServer); // the files are gone already
    }

    void filesOfOthersStay_data()
    {
        QTest::addColumn<QByteArray>("lock");
        QTest::newRow("another process") << QByteArray("      4321\n");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("no number") << QByteArray("1234 or so\n");
        QTest::newRow("zero") << QByteArray("         0\n");
        QTest::newRow("too long") << QByteArray(40, '1');
    }

    void filesOfOthersStay()
    {
        QFETCH(QByteArray, lock);
        QVERIFY(write(lockPath(), lock));
        remove(kXServer);
        remove(0);
        QCOMPARE(contentOf(lockPath()), lock);
        QVERIFY(QFileInfo::exists(socketPath()));
    }

    void socketWithoutLockStays()
    {
        remove(kXServer);
        remove(0);
        QVERIFY(QFileInfo::exists(socketPath()));
    }

    void linksAreNotFollowedAndPipesDoNotBlock()
    {
        const QString target = directory->filePath(u"target"_s);
        QVERIFY(write(target, "      1234\n"));
        QVERIFY(QFile::link(target, lockPath()));
        remove(kXServer);
        QVERIFY(QFileInfo(lockPath()).isSymLink());
        QVERIFY(QFile::remove(lockPath()));
        QCOMPARE(::mkfifo(QFile::encodeName(lockPath()).constData(), 0600), 0);
        remove(kXServer);
        QVERIFY(QFileInfo::exists(lockPath()));
        QVERIFY(QFileInfo::exists(socketPath()));
    }
};

ZARVO_TEST(XServerFilesTest)
#include "tst_xserverfiles.moc"
