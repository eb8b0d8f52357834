// SPDX-License-Identifier: MIT
#include "client/reach/viewer.h"
#include "client/reach/vncpasswordfile.h"
#include "client/terminal/interruption.h"
#include "tests/client/script.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/testmain.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

/** Shell scripts play the viewers. */
class TestViewer : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        folder = std::make_unique<QTemporaryDir>();
        path = std::make_unique<EnvironmentVariable>("PATH", folder->path().toUtf8());
    }
    void cleanup() { path.reset(); }

    void configuredViewerComesBeforeKnownOnes_data()
    {
        QTest::addColumn<QByteArray>("configured");
        QTest::addColumn<QStringList>("programs");
        QTest::addColumn<QString>("name");
        const QString known = u"xtigervncviewer"_s;
        QTest::newRow("first known") << ""_ba << QStringList{u"xtigervncviewer"_s} << known;
        QTest::newRow("second known") << ""_ba << QStringList{u"vncviewer"_s} << u"vncviewer"_s;
        QTest::newRow("both known") << ""_ba << QStringList{u"vncviewer"_s, u"xtigervncviewer"_s} << known;
        QTest::newRow("configured") << "mine \"a b\""_ba << QStringList{u"mine"_s, u"vncviewer"_s} << u"mine a b"_s;
    }
    void configuredViewerComesBeforeKnownOnes()
    {
        QFETCH(QByteArray, configured);
        QFETCH(QStringList, programs);
        const EnvironmentVariable viewerVariable("ZARVO_VIEWER", configured);
        const EnvironmentVariable display("DISPLAY", ":1"_ba);
        for (const QString &program : std::as_const(programs)) {
            putProgram(program, "");
        }
        Viewer viewer;
        Failure failure;
        QVERIFY2(viewer.find(&failure), qPrintable(failure.text));
        QTEST(viewer.name(), "name");
    }

    void onlyTigerVncIsKnownToTakeAPath_data()
    {
        QTest::addColumn<QByteArray>("configured");
        QTest::addColumn<QString>("program");
        QTest::addColumn<QString>("target"); ///< of the link that the program is; empty: it is a file
        QTest::addColumn<bool>("knows");
        QTest::newRow("by its own name") << ""_ba << u"xtigervncviewer"_s << QString() << true;
        QTest::newRow("alternative") << ""_ba << u"vncviewer"_s << u"elsewhere/xtigervncviewer"_s << true;
        QTest::newRow("another one") << ""_ba << u"vncviewer"_s << u"elsewhere/xtightvncviewer"_s << false;
        QTest::newRow("no link") << ""_ba << u"vncviewer"_s << QString() << false;
        QTest::newRow("configured") << "xtigervncviewer"_ba << u"xtigervncviewer"_s << QString() << false;
    }
    void onlyTigerVncIsKnownToTakeAPath()
    {
        QFETCH(QByteArray, configured);
        QFETCH(QString, program);
        QFETCH(QString, target);
        const EnvironmentVariable viewerVariable("ZARVO_VIEWER", configured);
        const EnvironmentVariable display("DISPLAY", ":1"_ba);
        if (target.isEmpty()) {
            putProgram(program, "");
        } else {
            QVERIFY(QDir(folder->path()).mkdir(u"elsewhere"_s));
            putProgram(target, "");
            QVERIFY(QFile::link(folder->filePath(target), folder->filePath(program)));
        }
        Viewer viewer;
        Failure failure;
        QVERIFY2(viewer.find(&failure), qPrintable(failure.text));
        QTEST(viewer.knowsLocalSockets(), "knows");
    }

    void socketIsGivenByItsNameInItsDirectory()
    {
        const EnvironmentVariable viewerVariable("ZARVO_VIEWER", "mine"_ba);
        putProgram(u"mine"_s, "echo \"$PWD $*\" > '" + inFolder("seen") + "'\n");
        const QTemporaryDir place;
        PrivateDirectory directory;
        QString error;
        QVERIFY2(directory.open(place.path(), &error), qPrintable(error));
        Viewer viewer;
        Failure failure;
        QVERIFY(viewer.find(&failure));
        QVERIFY2(viewer.showSocket(directory, u"name.sock"_s, &failure), qPrintable(failure.text));
        QCOMPARE(contentOf(folder->filePath(u"seen"_s)), place.path().toUtf8() + " -SecurityTypes None ./name.sock\n");
    }

    void portWithoutAPasswordIsAllThatTheViewerGets()
    {
        const EnvironmentVariable viewerVariable("ZARVO_VIEWER", "mine"_ba);
        putProgram(u"mine"_s, "echo \"$*\" > '" + inFolder("seen") + "'\n");
        Viewer viewer;
        Failure failure;
        QVERIFY(viewer.find(&failure));
        QVERIFY2(viewer.showPort(4711, {}, &failure), qPrintable(failure.text));
        QCOMPARE(contentOf(folder->filePath(u"seen"_s)), "127.0.0.1::4711\n"_ba);
    }

    void missingViewerIsReported_data()
    {
        QTest::addColumn<QByteArray>("configured");
        QTest::addColumn<bool>("isInstalled");
        QTest::addColumn<QString>("text");
        QTest::newRow("none") << ""_ba << false << u"There is no VNC viewer on the search path."_s;
        QTest::newRow("none of that name") << "mine"_ba << true << u"ZARVO_VIEWER names \"mine\""_s;
        QTest::newRow("no display") << ""_ba << true << u"The viewer has no display"_s;
    }
    void missingViewerIsReported()
    {
        QFETCH(QByteArray, configured);
        QFETCH(bool, isInstalled);
        QFETCH(QString, text);
        const EnvironmentVariable viewerVariable("ZARVO_VIEWER", configured);
        const EnvironmentVariable display("DISPLAY");
        const EnvironmentVariable wayland("WAYLAND_DISPLAY");
        if (isInstalled) {
            putProgram(u"vncviewer"_s, "");
        }
        Viewer viewer;
        Failure failure;
        QVERIFY(!viewer.find(&failure));
        QCOMPARE(failure.code, ExitCode::NoViewer);
        QVERIFY2(failure.text.startsWith(text), qPrintable(failure.text));
    }

    void configuredViewerNeedsNoDisplay()
    {
        const EnvironmentVariable display("DISPLAY");
        const EnvironmentVariable wayland("WAYLAND_DISPLAY");
        QCOMPARE(outcomeOf("exit 0"), u"shown"_s);
    }

    void viewerGetsThePortAndThePasswordInAFile()
    {
        // The last but one of the arguments is the password's file; the shell itself inherits the descriptor.
        QCOMPARE(outcomeOf("while [ $# -gt 3 ]; do shift; done\n"
                           "echo \"$1 $3\" > '" +
                           inFolder("arguments") + "'\n/bin/cat \"$2\" > '" + inFolder("password") + "'\n"),
                 u"shown"_s);
        QCOMPARE(contentOf(folder->filePath(u"arguments"_s)), "-passwd 127.0.0.1::4711\n"_ba);
        QCOMPARE(contentOf(folder->filePath(u"password"_s)), scrambledVncPassword(u"secret12"_s));
    }

    void outputOfTheViewerStaysOutOfOurs()
    {
        const QString output = folder->filePath(u"output"_s);
        std::fflush(stdout);
        const int saved = ::dup(STDOUT_FILENO);
        const int file = ::open(qPrintable(output), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        QVERIFY(saved != -1 && file != -1);
        ::dup2(file, STDOUT_FILENO);
        const QString result = outcomeOf("echo The viewer writes this");
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        ::close(file);
        QCOMPARE(result, u"shown"_s);
        QCOMPARE(contentOf(output), ""_ba);
    }

    void viewerThatFailsIsReported_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QString>("text");
        QTest::newRow("exit code") << "exit 3"_ba << u"The viewer \"mine\" ended with exit code 3."_s;
        QTest::newRow("crash") << "kill -KILL $$"_ba << u"The viewer \"mine\" crashed."_s;
    }
    void viewerThatFailsIsReported()
    {
        QFETCH(QByteArray, script);
        QTEST(outcomeOf(script), "text");
    }

    void viewerThatDoesNotStartIsReported()
    {
        putFile(folder->filePath(u"mine"_s), "#!/no/such/shell\n");
        QFile::setPermissions(folder->filePath(u"mine"_s), QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        const QString text = outcome();
        QVERIFY2(text.startsWith("The viewer \"mine\" does not start: "_L1), qPrintable(text));
    }

    void interruptionEndsTheViewer()
    {
        putProgram(u"mine"_s, "echo $$ > '" + inFolder("pid") + "'\nexec /bin/sleep 1000\n");
        const pid_t pid = ::fork();
        if (pid == 0) {
            const Interruption interruption;
            QTimer poll;
            connect(&poll, &QTimer::timeout, &poll, [this] {
                if (contentOf(folder->filePath(u"pid"_s)).endsWith('\n')) {
                    ::raise(SIGTERM);
                }
            });
            poll.start(5ms);
            ::_exit(outcome().isEmpty() ? 0 : 1); // the user knows why it ended
        }
        int status = -1;
        QCOMPARE(::waitpid(pid, &status, 0), pid);
        QVERIFY2(WIFEXITED(status) && WEXITSTATUS(status) == 0, qPrintable(QString::number(status)));
        const pid_t viewer = contentOf(folder->filePath(u"pid"_s)).trimmed().toInt();
        QVERIFY(viewer > 0);
        QTRY_VERIFY(::kill(viewer, 0) == -1);
    }

private:
    [[nodiscard]] QByteArray inFolder(const char *name) const
    {
        return folder->filePath(QString::fromLatin1(name)).toUtf8();
    }

    void putProgram(const QString &name, const QByteArray &text) const { putScript(folder->filePath(name), text); }

    QString outcomeOf(const QByteArray &script)
    {
        putProgram(u"mine"_s, script);
        return outcome();
    }

    /** Runs the program "mine" as the viewer; the text of the failure if there is one. */
    static QString outcome()
    {
        const EnvironmentVariable viewerVariable("ZARVO_VIEWER", "mine"_ba);
        Viewer viewer;
        Failure failure;
        if (!viewer.find(&failure) || !viewer.showPort(4711, u"secret12"_s, &failure)) {
            return failure.code == ExitCode::NoViewer ? failure.text : u"wrong exit code"_s;
        }
        return u"shown"_s;
    }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<EnvironmentVariable> path;
};

ZARVO_TEST(TestViewer)
#include "tst_viewer.moc"
