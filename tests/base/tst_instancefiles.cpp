// SPDX-License-Identifier: MIT
#include "base/instancefiles.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestInstanceFiles : public QObject
{
    Q_OBJECT

private slots:
    void serverIsNamedAfterTheUser()
    {
        const EnvironmentVariable user("USER", "anna");
        QCOMPARE(serverInstanceId(), u"zarvo_server-anna"_s);
        const EnvironmentVariable nobody("USER");
        QCOMPARE(serverInstanceId(), u"zarvo_server-"_s);
    }

    void foldersAreListedOnce()
    {
        QList<QByteArray> folders = InstanceFiles::standardFolders();
        QVERIFY(folders.contains("/tmp"));
        const qsizetype size = folders.size();
        std::sort(folders.begin(), folders.end());
        folders.erase(std::unique(folders.begin(), folders.end()), folders.end());
        QCOMPARE(folders.size(), size);
    }

    void lockOfAnotherOneIsSeen()
    {
        const QTemporaryDir dir;
        const QByteArray path = QFile::encodeName(dir.filePath(u"a"_s));
        QCOMPARE(InstanceFiles::open(path, 0), -1);
        const int first = InstanceFiles::open(path, O_CREAT);
        const int second = InstanceFiles::open(path, 0);
        QVERIFY(first != -1 && second != -1);
        QCOMPARE(InstanceFiles::lock(first, path, LOCK_EX), InstanceFiles::Locking::Locked);
        QCOMPARE(InstanceFiles::lock(second, path, LOCK_SH), InstanceFiles::Locking::Held);
        ::close(first);
        QVERIFY(QFile::remove(QFile::decodeName(path)));
        QCOMPARE(InstanceFiles::lock(second, path, LOCK_SH), InstanceFiles::Locking::Failed);
        ::close(second);
    }

    void onlyOurOwnFilesOfThePrefixAreListed()
    {
        const QTemporaryDir dir;
        const QByteArray folder = QFile::encodeName(dir.path());
        const InstanceFiles files(u"zarvo_test"_s, {folder});
        const QByteArray stem = folder + '/' + files.prefix();
        putFile(QFile::decodeName(stem + 'a'), "");
        putFile(dir.filePath(u"b"_s), "");
        QCOMPARE(::symlink((stem + 'a').constData(), (stem + 'c').constData()), 0);
        QCOMPARE(::mkfifo((stem + 'd').constData(), 0600), 0);
        QList<QByteArray> seen;
        files.forEach(folder, [&seen](const char *name) {
            seen.append(name);
            return true;
        });
        QCOMPARE(seen, QList<QByteArray>{files.prefix() + 'a'});
    }
};

ZARVO_TEST(TestInstanceFiles)
#include "tst_instancefiles.moc"
