// SPDX-License-Identifier: MIT
#include "client/server/serverconnector.h"
#include "tests/client/fakeserver.h"
#include "tests/client/fakeserverfiles.h"
#include "tests/client/script.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>

#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

/** The process under test plays the server, or lets a script of that name on the search path play its start. */
class TestServerConnector : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(files.make()); }

    void init()
    {
        files.remove();
        putFile(files.dir.filePath(u"server_key"_s), files.identity.key.toPem());
        server = std::make_unique<FakeServer>(files.identity, [](QSslSocket *, const Json::Value &) {});
    }

    void cleanup()
    {
        QFile::remove(files.dir.filePath(u"bin/zarvo_server"_s));
        server.reset();
    }

    void runningServerIsConnectedTo()
    {
        files.name(server->port());
        QCOMPARE(outcome(ServerConnector::Start::Forbidden), Connected);
        QCOMPARE(status.state, ServerState::Running);
        QCOMPARE(status.port, server->port());
        QCOMPARE(status.pid, qint64(::getpid()));
    }

    void missingServerIsReported()
    {
        QCOMPARE(outcome(ServerConnector::Start::Forbidden), ExitCode::NoServer);
        QCOMPARE(failure.text, u"No server is running: there is no file \"%1\"."_s.arg(portPath()));
    }

    void unusablePortFileIsReported()
    {
        files.name(server->port());
        putFile(portPath(), "word");
        QCOMPARE(outcome(ServerConnector::Start::Allowed), ExitCode::NoServer);
        QCOMPARE(failure.text, u"The file \"%1\" holds no usable number."_s.arg(portPath()));
    }

    void serverWithAnotherCertificateIsRefused()
    {
        TestIdentity other;
        QVERIFY(makeTestIdentity(files.dir, u"other"_s, QString(), &other));
        server = std::make_unique<FakeServer>(other, [](QSslSocket *, const Json::Value &) {});
        files.name(server->port());
        QCOMPARE(outcome(ServerConnector::Start::Allowed), ExitCode::CertificateRefused);
        QVERIFY2(failure.text.contains("not our own"_L1), qPrintable(failure.text));
    }

    void keyOfAnotherCertificateIsRefused()
    {
        TestIdentity other;
        QVERIFY(makeTestIdentity(files.dir, u"other"_s, QString(), &other));
        putFile(files.dir.filePath(u"server_key"_s), other.key.toPem());
        files.name(server->port());
        QCOMPARE(outcome(ServerConnector::Start::Allowed), ExitCode::CertificateRefused);
        QVERIFY2(failure.text.contains("do not belong together"_L1), qPrintable(failure.text));
    }

    void serverThatClosesAtOnceCountsAsNone()
    {
        const std::unique_ptr<QTcpServer> closing = closingServer([] {});
        files.name(closing->serverPort());
        QCOMPARE(outcome(ServerConnector::Start::Forbidden), ExitCode::NoServer);
        QCOMPARE(status.state, ServerState::Running);
    }

    void serverThatReplacesAnotherIsConnectedTo()
    {
        const std::unique_ptr<QTcpServer> closing = closingServer([this] { files.name(server->port()); });
        files.name(closing->serverPort());
        QCOMPARE(outcome(ServerConnector::Start::Forbidden), Connected);
        QCOMPARE(status.port, server->port());
    }

    void startingServerIsAwaitedWithoutAStart()
    {
        putFile(pidPath(), QByteArray::number(::getpid()));
        QTimer::singleShot(50ms, this, [this] { files.name(server->port()); });
        QCOMPARE(outcome(ServerConnector::Start::Forbidden), Connected);
    }

    void startingServerThatEndsIsReported()
    {
        putFile(pidPath(), QByteArray::number(::getpid()));
        QTimer::singleShot(50ms, this, [this] { files.remove(); });
        QCOMPARE(outcome(ServerConnector::Start::Forbidden), ExitCode::NoServer);
        QVERIFY2(failure.text.startsWith("No server is running"_L1), qPrintable(failure.text));
    }

    void waitEndsAtTheDeadlineOfTheClient()
    {
        putFile(pidPath(), QByteArray::number(::getpid()));
        deadline = 100ms;
        QCOMPARE(outcome(ServerConnector::Start::Forbidden), ExitCode::TimedOut);
        deadline.reset();
        QVERIFY2(failure.text.startsWith("The server did not start in time"_L1), qPrintable(failure.text));
    }

    void serverIsStarted()
    {
        putServerScript("printf $PPID > '" + pidPath().toUtf8() + "'\nprintf " + QByteArray::number(server->port()) +
                        " > '" + portPath().toUtf8() + "'\n");
        QCOMPARE(outcome(ServerConnector::Start::Allowed), Connected);
        QCOMPARE(status.port, server->port());
    }

    void startBesideAServerThatEndsIsRepeated()
    {
        // The first start ends without a message, as it does while another server still holds the lock.
        const QByteArray once = files.dir.filePath(u"once"_s).toUtf8();
        putServerScript("if [ ! -e '" + once + "' ]; then : > '" + once + "'; exit 0; fi\nprintf $PPID > '" +
                        pidPath().toUtf8() + "'\nprintf " + QByteArray::number(server->port()) + " > '" +
                        portPath().toUtf8() + "'\n");
        QCOMPARE(outcome(ServerConnector::Start::Allowed), Connected);
    }

    void messageOfAFailedStartIsReported()
    {
        putServerScript("echo No such luck >&2\nexit 1\n");
        QCOMPARE(outcome(ServerConnector::Start::Allowed), ExitCode::NoServer);
        QCOMPARE(failure.text, u"The server does not start:\nNo such luck"_s);
    }

    void missingProgramIsReported()
    {
        QCOMPARE(outcome(ServerConnector::Start::Allowed), ExitCode::NoServer);
        QVERIFY2(failure.text.startsWith("The program \"zarvo_server\" is neither in"_L1), qPrintable(failure.text));
    }

private:
    static constexpr ExitCode Connected = ExitCode::Done;

    /** Connects with a new client; sets the failure and what the files showed. */
    ExitCode outcome(ServerConnector::Start start)
    {
        const EnvironmentVariable path("PATH", files.dir.filePath(u"bin"_s).toUtf8());
        failure = {};
        RpcClient client;
        if (deadline) {
            client.setDeadline(QDeadlineTimer(*deadline));
        }
        ServerConnector connector{ServerFiles(files.settings().userPath)};
        const bool isConnected = connector.connect(&client, start, &failure);
        status = connector.status();
        return isConnected ? Connected : failure.code;
    }

    [[nodiscard]] QString pidPath() const { return files.dir.filePath(u"host/server_pid"_s); }
    [[nodiscard]] QString portPath() const { return files.dir.filePath(u"host/server_port"_s); }

    void putServerScript(const QByteArray &text) const
    {
        QDir(files.dir.path()).mkpath(u"bin"_s);
        putScript(files.dir.filePath(u"bin/zarvo_server"_s), text);
    }

    /** A server that closes each connection, after @p before. */
    static std::unique_ptr<QTcpServer> closingServer(const std::function<void()> &before)
    {
        auto closing = std::make_unique<QTcpServer>();
        connect(closing.get(), &QTcpServer::newConnection, closing.get(), [closing = closing.get(), before] {
            before();
            closing->nextPendingConnection()->close();
        });
        if (!closing->listen(QHostAddress::LocalHost)) {
            qFatal("Failed to listen on the loopback interface");
        }
        return closing;
    }

    FakeServerFiles files;
    std::unique_ptr<FakeServer> server;
    std::optional<std::chrono::milliseconds> deadline; ///< of the client
    ServerStatus status;
    Failure failure;
};

ZARVO_TEST(TestServerConnector)
#include "tst_serverconnector.moc"
