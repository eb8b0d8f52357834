// SPDX-License-Identifier: MIT
#include "agent/session/sessionlog.h"
#include "agent/session/sessionstate.h"
#include "agent/session/statesocket.h"
#include "tests/testmain.h"

#include <QLocalSocket>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

#include <unistd.h>

using namespace Qt::StringLiterals;

class StateSocketTest final : public QObject
{
    Q_OBJECT

private slots:
    void stateIsSentAndTheConnectionClosed()
    {
        const QTemporaryDir directory;
        SessionLog log;
        QString error;
        QVERIFY(log.open(directory.filePath(u"log"_s), &error));
        SessionState state(&log);
        StateSocket socket(&state);
        const QString path = directory.filePath(u"state"_s);
        QVERIFY(socket.listen(path, &error));

        for (int i = 0; i < 3; ++i) {
            state.offerPassword();
            QLocalSocket client;
            client.connectToServer(path);
            QTRY_COMPARE(client.state(), QLocalSocket::UnconnectedState);
            QCOMPARE(client.readAll(), state.toJson());
        }
    }

    void clientsThatDoNotReadDelayNoOther()
    {
        const QTemporaryDir directory;
        SessionLog log;
        QString error;
        QVERIFY(log.open(directory.filePath(u"log"_s), &error));
        SessionState state(&log);
        for (int i = 0; i < 16; ++i) {
            state.offerPassword();
        }
        StateSocket socket(&state);
        const QString path = directory.filePath(u"state"_s);
        QVERIFY(socket.listen(path, &error));

        std::vector<int> silent;
        for (int i = 0; i < 50; ++i) {
            silent.push_back(connectLocalSocket(path));
            QVERIFY(silent.back() != -1);
        }
        QLocalSocket client;
        client.connectToServer(path);
        QTRY_COMPARE(client.state(), QLocalSocket::UnconnectedState);
        QCOMPARE(client.readAll(), state.toJson());
        for (const int descriptor : silent) {
            ::close(descriptor);
        }
    }
};

ZARVO_TEST(StateSocketTest)
#include "tst_statesocket.moc"
