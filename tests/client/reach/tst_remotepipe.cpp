// SPDX-License-Identifier: MIT
#include "client/reach/remotepipe.h"
#include "tests/client/received.h"
#include "tests/client/script.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/helpers/redirection.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <memory>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/** Shell scripts play ssh. */
class TestRemotePipe : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        folder = std::make_unique<QTemporaryDir>();
        variable = std::make_unique<EnvironmentVariable>("ZARVO_SSH", QFile::encodeName(inFolder(u"ssh"_s)));
        host = RemoteHost::fromLocation(u"ssh://far/"_s);
        pipe = std::make_unique<RemotePipe>(*host);
    }
    void cleanup()
    {
        pipe.reset();
        variable.reset();
    }

    void streamBeginsWithTheGreeting_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::newRow("at once") << "printf 'RFB 003.008\\n'"_ba;
        QTest::newRow("after a welcome") << "echo Welcome to RF; printf 'RFB 003.008\\n'"_ba;
        QTest::newRow("in pieces") << "printf 'R'; sleep 0.1; printf 'FB 003.008\\n'"_ba;
    }
    void streamBeginsWithTheGreeting()
    {
        QFETCH(QByteArray, script);
        putScript(inFolder(u"ssh"_s), script + "\nexec cat\n");
        Failure failure;
        QVERIFY2(pipe->open(kId, &failure), qPrintable(failure.text));
        const int stream = pipe->takeStream();
        const QByteArray received = pipe->begin();
        QVERIFY(received.startsWith("RFB "));
        QCOMPARE(::send(stream, "more", 4, 0), 4);
        Received atOurEnd(stream);
        QTRY_COMPARE(received + atOurEnd.bytes(), "RFB 003.008\nmore"_ba);
        ::close(stream);
    }

    void failureHasItsExitCode_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<ExitCode>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("unreachable") << "echo 'No route to host' >&2; exit 255"_ba << ExitCode::NoServer
                                     << u"Failed to reach the host \"far\": No route to host"_s;
        QTest::newRow("no zarvoctl") << "exit 127"_ba << ExitCode::NoServer
                                     << u"There is no zarvoctl on the search path of the host \"far\"."_s;
        QTest::newRow("old zarvoctl") << "echo 'zarvoctl: There is no verb \"pipe\".' >&2; exit 2"_ba
                                      << ExitCode::NoServer
                                      << u"The zarvoctl of the host \"far\" is too old for this one."_s;
        QTest::newRow("no such session") << "echo First; echo 'zarvoctl: There is no session.' >&2; exit 3"_ba
                                         << ExitCode::NoSuchSession << u"far: zarvoctl: There is no session."_s;
        QTest::newRow("wrong state") << "echo 'Not now\033[31m' >&2; exit 9"_ba << ExitCode::WrongState
                                     << u"far: Not now\uFFFD[31m"_s;
        QTest::newRow("unknown exit code") << "echo Why >&2; exit 77"_ba << ExitCode::SessionFailed << u"far: Why"_s;
        QTest::newRow("end without a session")
            << "exit 0"_ba << ExitCode::SessionFailed << u"The answer of the host \"far\" is invalid."_s;
        QTest::newRow("crash") << "kill -KILL $$"_ba << ExitCode::NoServer << u"Failed to reach the host \"far\""_s;
        QTest::newRow("output without an end")
            << "exec yes"_ba << ExitCode::NoServer << u"Failed to reach the host \"far\""_s;
    }
    void failureHasItsExitCode()
    {
        QFETCH(QByteArray, script);
        QFETCH(QString, text);
        putScript(inFolder(u"ssh"_s), script + "\n");
        Failure failure;
        QVERIFY(!pipe->open(kId, &failure));
        QTEST(failure.code, "code");
        QVERIFY2(failure.text.startsWith(text), qPrintable(failure.text));
    }

    void missingSshIsAFailure()
    {
        Failure failure;
        QVERIFY(!pipe->open(kId, &failure));
        QCOMPARE(failure.code, ExitCode::NoServer);
        QVERIFY2(failure.text.endsWith(u"does not start."_s), qPrintable(failure.text));
    }

    void idWithShellSyntaxIsRefused()
    {
        putScript(inFolder(u"ssh"_s), "touch '" + QFile::encodeName(inFolder(u"called"_s)) + "'\n");
        Failure failure;
        QVERIFY(!pipe->open(u"; rm -r x"_s, &failure));
        QCOMPARE(failure.code, ExitCode::NoSuchSession);
        QVERIFY(!QFile::exists(inFolder(u"called"_s)));
    }

    void laterErrorsAreShownWithoutControlCharacters()
    {
        putScript(inFolder(u"ssh"_s), "printf 'RFB 003.008\\n'; read line; printf 'lost \\033[31m\\n' >&2\n");
        Failure failure;
        QVERIFY2(pipe->open(kId, &failure), qPrintable(failure.text));
        const int stream = pipe->takeStream();
        const QString errors = inFolder(u"errors"_s);
        {
            const Redirection toErrors(STDERR_FILENO, errors);
            QCOMPARE(::send(stream, "\n", 1, 0), 1);
            QTRY_COMPARE(contentOf(errors), u"lost \uFFFD[31m\n"_s.toUtf8());
        }
        ::close(stream);
    }

    void sshEndsWithThePipe_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::newRow("on SIGTERM") << "exec sleep 1000"_ba;
        QTest::newRow("ignores SIGTERM") << "trap '' TERM; while :; do sleep 1; done"_ba;
    }
    void sshEndsWithThePipe()
    {
        QFETCH(QByteArray, script);
        const QString pidFile = inFolder(u"pid"_s);
        putScript(inFolder(u"ssh"_s),
                  "echo $$ > '" + QFile::encodeName(pidFile) + "'; printf 'RFB 003.008\\n'\n" + script + "\n");
        Failure failure;
        QVERIFY2(pipe->open(kId, &failure), qPrintable(failure.text));
        const int pid = contentOf(pidFile).trimmed().toInt();
        pipe.reset();
        QVERIFY(pid > 0 && ::kill(pid, 0) == -1 && errno == ESRCH);
    }

private:
    inline static const QString kId = QString(32, u'a');

    [[nodiscard]] QString inFolder(const QString &name) const { return folder->filePath(name); }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<EnvironmentVariable> variable;
    std::unique_ptr<RemoteHost> host;
    std::unique_ptr<RemotePipe> pipe;
};

ZARVO_TEST(TestRemotePipe)
#include "tst_remotepipe.moc"
