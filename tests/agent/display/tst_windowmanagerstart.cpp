// SPDX-License-Identifier: MIT
#include "agent/applications/applicationrunner.h"
#include "agent/applications/childwatcher.h"
#include "agent/applications/processtree.h"
#include "agent/display/windowmanagerstart.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

/** The window manager is a script called openbox. */
class WindowManagerStartTest final : public QObject
{
    Q_OBJECT

private:
    static constexpr auto kLong = 10min;

    QByteArray searchPath;
    std::unique_ptr<QTemporaryDir> directory;
    std::unique_ptr<TestLog> log;
    std::unique_ptr<ChildWatcher> watcher;
    std::unique_ptr<ApplicationRunner> applications;
    std::unique_ptr<WindowManagerStart> windowManager;
    std::unique_ptr<QSignalSpy> settled;

    QString path(const QString &name) const { return directory->filePath(name); }

    void start(std::chrono::milliseconds patience) { windowManager->start(path(u"settings"_s), patience); }

    /** The script writes its pid, and then waits until it is killed. */
    [[nodiscard]] bool installOpenbox()
    {
        return writeScript(path(u"openbox"_s), "echo $$ > " + QFile::encodeName(path(u"pid"_s)) + "\nexec sleep 1000");
    }

    [[nodiscard]] pid_t pid()
    {
        const auto isWritten = [this] { return contentOf(path(u"pid"_s)).endsWith('\n'); };
        return QTest::qWaitFor(isWritten, 20000) ? contentOf(path(u"pid"_s)).trimmed().toInt() : -1;
    }

    [[nodiscard]] QStringList warnings() const { return log->lines.filter(u"Warning: "_s); }

private slots:
    void init()
    {
        searchPath = qgetenv("PATH");
        directory = std::make_unique<QTemporaryDir>();
        qputenv("PATH", QFile::encodeName(directory->path()));
        log = std::make_unique<TestLog>();
        watcher = std::make_unique<ChildWatcher>();
        QString error;
        QVERIFY(watcher->start(&error));
        applications = std::make_unique<ApplicationRunner>(
            ApplicationSettings{{"PATH=/usr/bin:/bin"}, 022, QFile::encodeName(directory->path()), path(u"app_log"_s)},
            watcher.get());
        windowManager = std::make_unique<WindowManagerStart>(applications.get(), watcher.get());
        settled = std::make_unique<QSignalSpy>(windowManager.get(), &WindowManagerStart::settled);
    }

    void cleanup()
    {
        windowManager.reset();
        applications.reset();
        watcher.reset();
        signalAll(liveDescendants(::getpid(), 0), SIGKILL);
        while (::waitpid(-1, nullptr, 0) > 0) { // or the next test's watcher would report them
        }
        log.reset();
        qputenv("PATH", searchPath);
    }

    void settlesAtOnceWithoutAWindowManager()
    {
        start(kLong);
        QCOMPARE(settled->count(), 1);
        QCOMPARE(warnings(), QStringList{u"Warning: No window manager is installed, neither openbox nor "
                                         "matchbox-window-manager"_s});
    }

    void settlesWhenWindowsAreManaged()
    {
        QVERIFY(installOpenbox());
        start(kLong);
        QVERIFY(pid() > 0);
        QCOMPARE(settled->count(), 0);
        windowManager->setManaging();
        QCOMPARE(settled->count(), 1);
        QVERIFY(warnings().isEmpty());
    }

    void settlesWhenTheWindowManagerEnds()
    {
        QVERIFY(writeScript(path(u"openbox"_s), "exit 1"));
        start(kLong);
        QTRY_COMPARE_WITH_TIMEOUT(settled->count(), 1, 20000);
        QCOMPARE(warnings(), QStringList{u"Warning: The window manager has ended, the session goes on without it"_s});
    }

    void settlesWhenTheTimeIsOver()
    {
        QVERIFY(installOpenbox());
        start(1ms);
        QTRY_COMPARE_WITH_TIMEOUT(settled->count(), 1, 20000);
        QCOMPARE(warnings(),
                 QStringList{u"Warning: The window manager is not ready, the session goes on without it"_s});
    }

    void settlesOnlyOnce()
    {
        QVERIFY(installOpenbox());
        QSignalSpy ended(watcher.get(), &ChildWatcher::ended);
        start(kLong);
        const pid_t process = pid();
        QVERIFY(process > 0);
        windowManager->setManaging();
        windowManager->setManaging();
        QCOMPARE(::kill(process, SIGKILL), 0);
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 1, 20000);
        QCOMPARE(settled->count(), 1);
        QVERIFY(warnings().isEmpty());
    }

    void staysSilentOnceCancelled()
    {
        QVERIFY(installOpenbox());
        QSignalSpy ended(watcher.get(), &ChildWatcher::ended);
        start(kLong);
        const pid_t process = pid();
        QVERIFY(process > 0);
        windowManager->cancel();
        windowManager->setManaging();
        QCOMPARE(::kill(process, SIGKILL), 0);
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 1, 20000);
        QCOMPARE(settled->count(), 0);
        QVERIFY(warnings().isEmpty());
    }
};

ZARVO_TEST(WindowManagerStartTest)
#include "tst_windowmanagerstart.moc"
