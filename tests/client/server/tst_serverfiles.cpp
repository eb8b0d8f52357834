// SPDX-License-Identifier: MIT
#include "client/server/serverfiles.h"
#include "client/server/serverprocess.h"
#include "tests/client/impostor.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/** The process under test takes the server's name, so its own pid is that of a running server. */
class TestServerFiles : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        folder = std::make_unique<QTemporaryDir>();
        ::prctl(PR_SET_NAME, "zarvo_server");
    }

    void filesTellTheStateOfTheServer_data()
    {
        QTest::addColumn<QByteArray>("pid");
        QTest::addColumn<QByteArray>("port");
        QTest::addColumn<int>("state");
        const QByteArray self = QByteArray::number(::getpid());
        const QByteArray none; // a null array: no file
        const QByteArray empty("");
        const auto row = [](const char *name, const QByteArray &pid, const QByteArray &port, ServerState state) {
            QTest::newRow(name) << pid << port << static_cast<int>(state);
        };
        row("no files", none, none, ServerState::Missing);
        row("running", self, "4000", ServerState::Running);
        row("no port yet", self, none, ServerState::Starting);
        row("port is being written", self, empty, ServerState::Starting);
        row("process has ended", "999999999", "4000", ServerState::Stale);
        row("process has ended, no port", "999999999", none, ServerState::Missing);
        row("pid of another program", "1", "4000", ServerState::Stale);
        row("no pid", none, "4000", ServerState::Stale);
        row("pid is no number", "x", "4000", ServerState::Stale);
        row("negative pid", "-1", "4000", ServerState::Stale);
        row("port is no number", self, "x", ServerState::Unreadable);
        row("port 0", self, "0", ServerState::Unreadable);
        row("last port", self, "65535", ServerState::Running);
        row("port out of range", self, "65536", ServerState::Unreadable);
        row("broken port, no pid", none, "x", ServerState::Stale);
    }
    void filesTellTheStateOfTheServer()
    {
        QFETCH(QByteArray, pid);
        QFETCH(QByteArray, port);
        write(u"server_pid"_s, pid);
        write(u"server_port"_s, port);
        const ServerStatus server = ServerFiles(folder->path()).readStatus();
        QTEST(static_cast<int>(server.state), "state");
        QCOMPARE(server.port, server.state == ServerState::Running ? port.toUShort() : quint16(0));
        QVERIFY(!server.detail.isEmpty());
    }

    void portFileOlderThanThePidFileDoesNotCount_data()
    {
        QTest::addColumn<QByteArray>("port");
        QTest::newRow("valid") << "4000"_ba;
        QTest::newRow("broken") << "x"_ba;
    }
    void portFileOlderThanThePidFileDoesNotCount()
    {
        QFETCH(QByteArray, port);
        write(u"server_pid"_s, QByteArray::number(::getpid()));
        write(u"server_port"_s, port);
        const timespec times[2] = {{1000, 0}, {1000, 0}};
        QVERIFY(::utimensat(AT_FDCWD, qPrintable(folder->filePath(u"server_port"_s)), times, 0) == 0);
        QVERIFY(ServerFiles(folder->path()).readStatus().state == ServerState::Starting);
    }

    void serverWithoutAPidFileIsFoundByItsPort()
    {
        const QByteArray user = "tst_serverfiles-" + QByteArray::number(::getpid());
        const EnvironmentVariable variable("USER", user);
        const Impostor impostor(serverEnvironment(QString::fromLatin1(user), u"/"_s));
        QTRY_VERIFY(isServerProcess(impostor.pid()));
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        write(u"server_port"_s, QByteArray::number(listener.serverPort()));
        const ServerStatus server = ServerFiles(folder->path()).readStatus();
        QVERIFY(server.state == ServerState::Running);
        QCOMPARE(server.pid, impostor.pid());
        write(u"server_pid"_s, "999999999"); // of an ended server: another program has its port by now
        QVERIFY(ServerFiles(folder->path()).readStatus().state == ServerState::Stale);
    }

    void pipeIsNotRead_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("pid") << u"server_pid"_s;
        QTest::newRow("port") << u"server_port"_s;
    }
    void pipeIsNotRead()
    {
        QFETCH(QString, name);
        QCOMPARE(::mkfifo(qPrintable(folder->filePath(name)), 0600), 0);
        const ServerStatus server = ServerFiles(folder->path()).readStatus();
        QVERIFY(server.state == ServerState::Unreadable);
        QCOMPARE(server.detail, u"\"%1\" is not a file"_s.arg(folder->filePath(name)));
    }

    void pathsAreInTheUserPath()
    {
        const ServerFiles files(u"/home/me/.zarvo_server/host"_s);
        QCOMPARE(files.certificatePath(), u"/home/me/.zarvo_server/server_cert"_s);
        QCOMPARE(files.sessionDirectory(u"ab"_s), u"/home/me/.zarvo_server/host/sessions/C-ab"_s);
    }

private:
    void write(const QString &name, const QByteArray &text)
    {
        if (!text.isNull()) {
            QFile file(folder->filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(text);
        }
    }

    std::unique_ptr<QTemporaryDir> folder;
};

ZARVO_TEST(TestServerFiles)
#include "tst_serverfiles.moc"
