// SPDX-License-Identifier: MIT
#include "agent/session/agentfiles.h"
#include "agent/session/listingwatcher.h"
#include "tests/testmain.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class ListingWatcherTest final : public QObject
{
    Q_OBJECT

private:
    static constexpr ListingLimits kShort{100ms, 10ms};
    static constexpr pid_t kNobody = 0;

    QString before;
    std::unique_ptr<QTemporaryDir> directory;

    [[nodiscard]] bool write(QLatin1StringView name, qint64 number)
    {
        QFile file(name);
        const QByteArray text = QByteArray::number(number);
        return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
    }

    /** The process runs until the object is destroyed. */
    static void startProcess(QProcess *process, const QString &workingDirectory)
    {
        process->setWorkingDirectory(workingDirectory);
        process->start(u"sleep"_s, {u"1000"_s});
        QVERIFY(process->waitForStarted());
    }

    /** Whether the signal comes, and only once. */
    static bool isUnlisted(pid_t guard = kNobody)
    {
        ListingWatcher watcher(kShort, guard);
        QSignalSpy unlisted(&watcher, &ListingWatcher::unlisted);
        watcher.start();
        return unlisted.wait(10000) && !unlisted.wait(100);
    }

    /** Whether the signal stays away for several times the grace. */
    static bool isListed(pid_t guard = kNobody)
    {
        ListingWatcher watcher(kShort, guard);
        QSignalSpy unlisted(&watcher, &ListingWatcher::unlisted);
        watcher.start();
        return !unlisted.wait(500);
    }

private slots:
    void init()
    {
        before = QDir::currentPath();
        directory = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(directory->path()));
        QVERIFY(write(SessionFile::kServerPid, ::getpid()));
    }

    void cleanup()
    {
        QVERIFY(QDir::setCurrent(before));
        directory.reset();
    }

    void sessionWithoutTheFileIsUnlisted() { QVERIFY(isUnlisted()); }

    void sessionWithAnEmptyFileIsUnlisted()
    {
        QFile file(SessionFile::kMonitorPid);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(isUnlisted());
    }

    void sessionWhoseFileNamesNobodyIsUnlisted_data()
    {
        QTest::addColumn<qint64>("pid");
        QTest::newRow("zero") << qint64(0);
        QTest::newRow("negative") << qint64(-1);
        QTest::newRow("out of range") << qint64(99999999999);
        QTest::newRow("dead") << qint64(INT_MAX);
    }
    void sessionWhoseFileNamesNobodyIsUnlisted()
    {
        QFETCH(qint64, pid);
        QVERIFY(write(SessionFile::kMonitorPid, pid));
        QVERIFY(isUnlisted());
    }

    // The pid of an earlier run, which the system has given to another process since.
    void sessionWhoseFileNamesAForeignProcessIsUnlisted()
    {
        QProcess process;
        startProcess(&process, u"/"_s);
        QVERIFY(write(SessionFile::kMonitorPid, process.processId()));
        QVERIFY(isUnlisted(static_cast<pid_t>(process.processId())));
    }

    void sessionWhoseGuardIsNamedIsListed()
    {
        QProcess guard;
        startProcess(&guard, directory->path());
        QVERIFY(write(SessionFile::kMonitorPid, guard.processId()));
        QVERIFY(QFile::remove(SessionFile::kServerPid));
        QVERIFY(isListed(static_cast<pid_t>(guard.processId())));
        QVERIFY(isUnlisted());
    }

    void sessionBehindAnotherProgramIsListed()
    {
        QProcess wrapper;
        startProcess(&wrapper, directory->path());
        QVERIFY(write(SessionFile::kMonitorPid, wrapper.processId()));
        QVERIFY(isListed());
    }

    // The id was started again, and the files name the agent of the later run.
    void sessionReplacedBeforeItWasListedIsUnlisted()
    {
        QProcess later;
        startProcess(&later, directory->path());
        QVERIFY(write(SessionFile::kMonitorPid, later.processId()));
        QVERIFY(write(SessionFile::kServerPid, later.processId()));
        QVERIFY(isUnlisted());
    }

    void sessionListedOnceStaysListed()
    {
        QVERIFY(write(SessionFile::kMonitorPid, ::getpid()));
        ListingWatcher watcher(kShort, ::getpid());
        QSignalSpy unlisted(&watcher, &ListingWatcher::unlisted);
        watcher.start();
        QVERIFY(QFile::remove(SessionFile::kMonitorPid));
        QVERIFY(!unlisted.wait(500));
    }

    void sessionListedWithinTheGraceStays()
    {
        ListingWatcher watcher({10min, 10ms}, ::getpid());
        QSignalSpy unlisted(&watcher, &ListingWatcher::unlisted);
        watcher.start();
        QVERIFY(!unlisted.wait(100));
        QVERIFY(write(SessionFile::kMonitorPid, ::getpid()));
        QVERIFY(!unlisted.wait(100));
    }

    void graceIsGivenInFull()
    {
        ListingWatcher watcher({300ms, 100ms}, kNobody);
        QSignalSpy unlisted(&watcher, &ListingWatcher::unlisted);
        QElapsedTimer elapsed;
        elapsed.start();
        watcher.start();
        QVERIFY(unlisted.wait(30000));
        QVERIFY2(elapsed.elapsed() >= 300, qPrintable(QString::number(elapsed.elapsed())));
    }

    void fileThatCannotBeReadDoesNotCount()
    {
        QVERIFY(QDir().mkdir(SessionFile::kMonitorPid)); // can be opened but not read, like a file on a failing disk
        ListingWatcher watcher(kShort, kNobody);
        QSignalSpy unlisted(&watcher, &ListingWatcher::unlisted);
        watcher.start();
        QVERIFY(!unlisted.wait(500));
        QVERIFY(QDir().rmdir(SessionFile::kMonitorPid));
        QVERIFY(unlisted.wait(30000));
    }

    void pipeDoesNotBlock()
    {
        QCOMPARE(::mkfifo(SessionFile::kMonitorPid.data(), 0600), 0);
        QVERIFY(isUnlisted());
    }

    void stoppedWatcherStaysSilent()
    {
        ListingWatcher watcher(kShort, kNobody);
        QSignalSpy unlisted(&watcher, &ListingWatcher::unlisted);
        watcher.start();
        watcher.stop();
        QVERIFY(!unlisted.wait(300));
    }
};

ZARVO_TEST(ListingWatcherTest)
#include "tst_listingwatcher.moc"
