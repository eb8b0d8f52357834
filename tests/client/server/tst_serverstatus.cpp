// SPDX-License-Identifier: MIT
#include "client/server/serverstatus.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kPid = 123;
constexpr quint16 kPort = 4000;

ServerFacts facts(NumberFile pidFile, NumberFile portFile, bool isAlive)
{
    return {.portPath = u"/p/server_port"_s,
            .pidFile = pidFile,
            .portFile = portFile,
            .pid = pidFile == NumberFile::Valid ? kPid : 0,
            .port = portFile == NumberFile::Valid ? kPort : 0,
            .isPortOlder = false,
            .isAlive = isAlive,
            .error = u"why"_s};
}

} // namespace

/** All that can be read, and what it means. */
class TestServerStatus : public QObject
{
    Q_OBJECT

private slots:
    void factsTellTheStatus_data()
    {
        QTest::addColumn<ServerFacts>("read");
        QTest::addColumn<ServerStatus>("expected");
        using File = NumberFile;
        const QString none = u"No server is running: there is no file \"/p/server_port\""_s;
        const QString stale = u"The server has ended without removing its files: there is \"/p/server_port\" and no "
                              "process"_s;
        const QString starting = u"The server, process 123, has not written its port yet"_s;
        const ServerStatus running{ServerState::Running, kPort, kPid, u"The server is process 123 on port 4000"_s};
        const auto row = [](const char *name, const ServerFacts &read, const ServerStatus &expected) {
            QTest::newRow(name) << read << expected;
        };
        const auto older = [](ServerFacts read) {
            read.isPortOlder = true;
            return read;
        };
        const auto found = [](ServerFacts read) {
            read.pid = kPid;
            return read;
        };
        row("no files", facts(File::Missing, File::Missing, false), {ServerState::Missing, 0, 0, none});
        row("broken pid, no port", facts(File::Invalid, File::Missing, false), {ServerState::Missing, 0, 0, none});
        row("dead, no port", facts(File::Valid, File::Missing, false), {ServerState::Missing, 0, kPid, none});
        row("dead, empty port", facts(File::Valid, File::Empty, false),
            {ServerState::Stale, 0, kPid, stale + u" 123"_s});
        row("dead, broken port", facts(File::Valid, File::Invalid, false),
            {ServerState::Stale, 0, kPid, stale + u" 123"_s});
        row("dead, port", facts(File::Valid, File::Valid, false), {ServerState::Stale, 0, kPid, stale + u" 123"_s});
        row("dead, unreadable port", facts(File::Valid, File::Unreadable, false),
            {ServerState::Unreadable, 0, kPid, u"why"_s});
        row("empty pid, port", facts(File::Empty, File::Valid, false), {ServerState::Stale, 0, 0, stale});
        row("no pid, port without a listener", facts(File::Missing, File::Valid, false),
            {ServerState::Stale, 0, 0, stale});
        row("no pid, port with a listener", found(facts(File::Missing, File::Valid, true)), running);
        row("unreadable pid", facts(File::Unreadable, File::Missing, false), {ServerState::Unreadable, 0, 0, u"why"_s});
        row("alive, no port", facts(File::Valid, File::Missing, true), {ServerState::Starting, 0, kPid, starting});
        row("alive, empty port", facts(File::Valid, File::Empty, true), {ServerState::Starting, 0, kPid, starting});
        row("alive, broken port", facts(File::Valid, File::Invalid, true),
            {ServerState::Unreadable, 0, kPid, u"why"_s});
        row("alive, unreadable port", facts(File::Valid, File::Unreadable, true),
            {ServerState::Unreadable, 0, kPid, u"why"_s});
        row("alive, port", facts(File::Valid, File::Valid, true), running);
        row("alive, older port", older(facts(File::Valid, File::Valid, true)),
            {ServerState::Starting, 0, kPid, starting});
        row("alive, older broken port", older(facts(File::Valid, File::Invalid, true)),
            {ServerState::Starting, 0, kPid, starting});
        row("alive, older unreadable port", older(facts(File::Valid, File::Unreadable, true)),
            {ServerState::Unreadable, 0, kPid, u"why"_s});
        row("dead, older port", older(facts(File::Valid, File::Valid, false)),
            {ServerState::Stale, 0, kPid, stale + u" 123"_s});
    }
    void factsTellTheStatus()
    {
        QFETCH(ServerFacts, read);
        QFETCH(ServerStatus, expected);
        const ServerStatus status = classify(read);
        QCOMPARE(status.state, expected.state);
        QCOMPARE(status.port, expected.port);
        QCOMPARE(status.pid, expected.pid);
        QCOMPARE(status.detail, expected.detail);
    }

    void sameServerHasTheSameStatePortAndPid_data()
    {
        QTest::addColumn<ServerStatus>("other");
        QTest::addColumn<bool>("isSame");
        QTest::newRow("same") << ServerStatus{ServerState::Running, kPort, kPid, u"other words"_s} << true;
        QTest::newRow("state") << ServerStatus{ServerState::Starting, kPort, kPid, {}} << false;
        QTest::newRow("port") << ServerStatus{ServerState::Running, kPort + 1, kPid, {}} << false;
        QTest::newRow("pid") << ServerStatus{ServerState::Running, kPort, kPid + 1, {}} << false;
    }
    void sameServerHasTheSameStatePortAndPid()
    {
        QFETCH(ServerStatus, other);
        const ServerStatus status{ServerState::Running, kPort, kPid, u"words"_s};
        QTEST(status.isSameAs(other), "isSame");
    }
};

ZARVO_TEST(TestServerStatus)
#include "tst_serverstatus.moc"
