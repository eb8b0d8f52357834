// SPDX-License-Identifier: MIT
#include "agent/session/directorywatcher.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class DirectoryWatcherTest final : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> top;
    QString path;

private slots:
    void init()
    {
        top = std::make_unique<QTemporaryDir>();
        path = top->filePath(u"parent/watched"_s);
        QVERIFY(QDir().mkpath(path));
        QVERIFY(QDir().mkpath(top->filePath(u"elsewhere"_s)));
    }

    void removalIsNoticedAtOnce()
    {
        DirectoryWatcher watcher(1h); // so the kernel must report it
        QSignalSpy removed(&watcher, &DirectoryWatcher::removed);
        QString error;
        QVERIFY2(watcher.watch(path, &error), qPrintable(error));
        QVERIFY(QDir(path).removeRecursively());
        QTRY_COMPARE(removed.count(), 1);
    }

    void removalBeforeTheWatchIsNoticed()
    {
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(path));
        const bool isRemoved = QDir(path).removeRecursively();
        DirectoryWatcher watcher(1h);
        QSignalSpy removed(&watcher, &DirectoryWatcher::removed);
        QString error;
        const bool isWatching = watcher.watch(u"."_s, &error);
        QVERIFY(QDir::setCurrent(before));
        QVERIFY(isRemoved);
        QVERIFY2(isWatching, qPrintable(error));
        QTRY_COMPARE(removed.count(), 1);
    }

    void removalTogetherWithTheParentIsNoticed()
    {
        DirectoryWatcher watcher(1h);
        QSignalSpy removed(&watcher, &DirectoryWatcher::removed);
        QString error;
        QVERIFY(watcher.watch(path, &error));
        QVERIFY(QDir(top->filePath(u"parent"_s)).removeRecursively());
        QTRY_COMPARE(removed.count(), 1);
    }

    void removalIsNoticedEvenIfTheNameIsUsedAgain()
    {
        DirectoryWatcher watcher(1h);
        QSignalSpy removed(&watcher, &DirectoryWatcher::removed);
        QString error;
        QVERIFY(watcher.watch(path, &error));
        QVERIFY(QDir(path).removeRecursively());
        QVERIFY(QDir().mkpath(path));
        QTRY_COMPARE(removed.count(), 1);
    }

    // Moved out of the watched parent first, so the kernel reports nothing.
    void unreportedRemovalIsNoticed()
    {
        DirectoryWatcher watcher(20ms);
        QSignalSpy removed(&watcher, &DirectoryWatcher::removed);
        QString error;
        QVERIFY(watcher.watch(path, &error));
        const QString now = top->filePath(u"elsewhere/watched"_s);
        QVERIFY(QDir().rename(path, now));
        QVERIFY(!QTest::qWaitFor([&removed] { return removed.count() > 0; }, 200));
        QVERIFY(QDir(now).removeRecursively());
        QTRY_COMPARE(removed.count(), 1);
        QVERIFY(!QTest::qWaitFor([&removed] { return removed.count() > 1; }, 100));
    }

    void otherChangesAreIgnored()
    {
        DirectoryWatcher watcher(20ms);
        QSignalSpy removed(&watcher, &DirectoryWatcher::removed);
        QString error;
        QVERIFY(watcher.watch(path, &error));
        QVERIFY(QDir().mkpath(top->filePath(u"parent/other"_s)));
        QVERIFY(QDir().rmdir(top->filePath(u"parent/other"_s)));
        QVERIFY(QDir().rename(path, top->filePath(u"parent/renamed"_s)));
        QVERIFY(!QTest::qWaitFor([&removed] { return removed.count() > 0; }, 200));
    }

    void missingDirectoryIsReported()
    {
        DirectoryWatcher watcher;
        QString error;
        QVERIFY(!watcher.watch(u"/nowhere/directory"_s, &error));
        QVERIFY(error.contains(u"/nowhere/directory"_s));
    }
};

ZARVO_TEST(DirectoryWatcherTest)
#include "tst_directorywatcher.moc"
