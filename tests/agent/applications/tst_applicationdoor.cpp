// SPDX-License-Identifier: MIT
#include "agent/applications/applicationdoor.h"
#include "agent/applications/applicationrequest.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QLocalSocket>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

#include <unistd.h>

using namespace Qt::StringLiterals;

class ApplicationDoorTest final : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;
    QList<QByteArray> started;
    QString failure; ///< the error of the next start; empty: it succeeds

    QString path() const { return directory.filePath(u"door"_s); }

    ApplicationDoor::Start starter()
    {
        return [this](const QByteArray &commandLine, QString *error) {
            started.append(commandLine);
            *error = failure;
            return failure.isEmpty();
        };
    }

    /** @return what start-app would report */
    QString request(const QByteArray &commandLine)
    {
        ApplicationRequest request;
        QSignalSpy finished(&request, &ApplicationRequest::finished);
        request.send(path(), commandLine);
        if (!finished.wait(30000)) {
            return u"no answer"_s;
        }
        return finished.first().first().toString();
    }

private slots:
    void init()
    {
        started.clear();
        failure.clear();
    }

    void commandsReachTheAgent_data()
    {
        QTest::addColumn<QByteArray>("command");
        QTest::newRow("word") << QByteArray("xterm");
        QTest::newRow("line") << QByteArray("a  'b c' | d; e &");
        QTest::newRow("lines") << QByteArray("a\nb");
        QTest::newRow("no UTF-8") << QByteArray("\xff\xfe");
        QTest::newRow("longest") << QByteArray(kMaxCommandBytes, 'x');
    }

    void commandsReachTheAgent()
    {
        QFETCH(QByteArray, command);
        TestLog log;
        ApplicationDoor door(starter());
        QString error;
        QVERIFY(door.listen(path(), &error));
        QCOMPARE(request(command), QString());
        QCOMPARE(started, QList<QByteArray>{command});
    }

    void badCommandsAreRefused_data()
    {
        QTest::addColumn<QByteArray>("command");
        QTest::addColumn<QString>("answer");
        QTest::newRow("empty") << QByteArray() << u"The command line is empty"_s;
        QTest::newRow("blank") << QByteArray(" \n") << u"The command line is empty"_s;
        QTest::newRow("too long") << QByteArray(kMaxCommandBytes + 1, 'x') << u"The command line is too long"_s;
    }

    void badCommandsAreRefused()
    {
        QFETCH(QByteArray, command);
        TestLog log;
        ApplicationDoor door(starter());
        QString error;
        QVERIFY(door.listen(path(), &error));
        QTEST(request(command), "answer");
        QVERIFY(started.isEmpty());
    }

    void failuresAreReportedAndLogged()
    {
        TestLog log;
        failure = u"It did not work"_s;
        ApplicationDoor door(starter());
        QString error;
        QVERIFY(door.listen(path(), &error));
        QCOMPARE(request("xterm"), failure);
        QCOMPARE(log.lines, QStringList{u"Warning: It did not work"_s});
    }

    void missingAgentIsReported()
    {
        QVERIFY(request("xterm").startsWith(u"Failed to reach the agent of this session at \""_s + path()));
    }

    void agentThatClosesTheConnectionIsReported()
    {
        LocalEndpoint endpoint;
        QString error;
        QVERIFY(endpoint.listen(path(), &error));
        connect(&endpoint, &LocalEndpoint::accepted, this, [](int descriptor) { ::close(descriptor); });
        QCOMPARE(request("xterm"), u"The agent of this session closed the connection"_s);
    }

    // The door has limits of its own, because a peer need not be start-app.
    void bytesAndConnectionsAreLimited()
    {
        TestLog log;
        ApplicationDoor door(starter());
        QString error;
        QVERIFY(door.listen(path(), &error));
        std::vector<std::unique_ptr<QLocalSocket>> clients;
        for (int i = 0; i < ApplicationDoor::kMaxConnections + 1; ++i) {
            clients.push_back(std::make_unique<QLocalSocket>());
            clients.back()->connectToServer(path());
            clients.back()->write("half a command");
        }
        QTRY_COMPARE(clients.back()->state(), QLocalSocket::UnconnectedState);
        QCOMPARE(clients.front()->state(), QLocalSocket::ConnectedState);
        clients.front()->write(QByteArray(2 * kMaxCommandBytes, 'x'));
        QTRY_COMPARE(clients.front()->state(), QLocalSocket::UnconnectedState);
        QCOMPARE(clients.front()->readAll(), QByteArray("The command line is too long"));
        QVERIFY(started.isEmpty());
        clients.clear();
        QTRY_COMPARE(request("xterm"), QString());
    }

    void silentConnectionTimesOut()
    {
        TestLog log;
        ApplicationDoor door(starter());
        QString error;
        QVERIFY(door.listen(path(), &error));
        QLocalSocket client;
        client.connectToServer(path());
        client.write("half a command");
        QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLocalSocket::UnconnectedState, 30000);
        QVERIFY(started.isEmpty());
    }
};

ZARVO_TEST(ApplicationDoorTest)
#include "tst_applicationdoor.moc"
