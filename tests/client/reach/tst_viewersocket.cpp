// SPDX-License-Identifier: MIT
#include "client/reach/viewersocket.h"
#include "contract/sessiondirectory.h"
#include "tests/helpers/agentsocket.h"
#include "tests/helpers/files.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <unistd.h>

using namespace Qt::StringLiterals;

class TestViewerSocket : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        directory = std::make_unique<QTemporaryDir>();
        putFile(inDirectory(u"display"_s), QByteArray::number(displays.first()));
    }

    void sessionWithoutAnAgentHasNoSocket()
    {
        ViewerSocket socket;
        Failure failure;
        QVERIFY2(socket.open(directory->path(), &failure), qPrintable(failure.text));
        QVERIFY(!socket.answers());
        int connection = -1;
        QVERIFY(!socket.connect(&connection, &failure));
        QCOMPARE(failure.code, ExitCode::SessionFailed);
        QVERIFY2(failure.text.contains(u"connect --print"_s), qPrintable(failure.text));
    }

    void socketIsFoundByTheDisplay()
    {
        const AgentSocket agent(inDirectory(viewerSocketName(displays.first())), "hello");
        ViewerSocket socket;
        Failure failure;
        QVERIFY(socket.open(directory->path(), &failure));
        QVERIFY(socket.answers());
        int connection = -1;
        QVERIFY2(socket.connect(&connection, &failure), qPrintable(failure.text));
        ::close(connection);
    }

    void sessionWithoutADisplayIsRefused_data()
    {
        QTest::addColumn<QByteArray>("display");
        QTest::newRow("empty") << ""_ba;
        QTest::newRow("path") << "../1"_ba;
        QTest::newRow("too large") << "65536"_ba;
    }
    void sessionWithoutADisplayIsRefused()
    {
        QFETCH(QByteArray, display);
        putFile(inDirectory(u"display"_s), display);
        ViewerSocket socket;
        Failure failure;
        QVERIFY(!socket.open(directory->path(), &failure));
        QCOMPARE(failure.code, ExitCode::SessionFailed);
    }

    void agentKnowsItsViewersBetterThanTheList_data()
    {
        QTest::addColumn<QByteArray>("state");
        QTest::addColumn<bool>("listed");
        QTest::addColumn<bool>("has");
        QTest::newRow("none") << "{\"Clients\":0}"_ba << true << false;
        QTest::newRow("two") << "{\"Clients\":2}"_ba << false << true;
        QTest::newRow("says nothing of them, listed") << "{}"_ba << true << true;
        QTest::newRow("says nothing of them") << "{}"_ba << false << false;
        QTest::newRow("text") << "{\"Clients\":\"2\"}"_ba << false << false;
        QTest::newRow("garbage") << "\xff{"_ba << true << true;
    }
    void agentKnowsItsViewersBetterThanTheList()
    {
        QFETCH(QByteArray, state);
        QFETCH(bool, listed);
        const AgentSocket agent(agentSocketPath(displays.first()), state);
        ViewerSocket socket;
        Failure failure;
        QVERIFY(socket.open(directory->path(), &failure));
        QTEST(socket.hasViewers(listed), "has");
    }

    void agentThatDoesNotAnswerLeavesTheList()
    {
        ViewerSocket socket;
        Failure failure;
        QVERIFY(socket.open(directory->path(), &failure));
        QVERIFY(socket.hasViewers(true)); // nobody listens
        const AgentSocket agent(agentSocketPath(displays.first()), {}, AgentSocket::Manner::NeverAnswer);
        QVERIFY(socket.hasViewers(true));
        QVERIFY(!socket.hasViewers(false));
    }

    void floodOfStateIsCutOff()
    {
        const AgentSocket agent(agentSocketPath(displays.first()), {}, AgentSocket::Manner::Flood);
        ViewerSocket socket;
        Failure failure;
        QVERIFY(socket.open(directory->path(), &failure));
        QVERIFY(!socket.hasViewers(false));
    }

private:
    [[nodiscard]] QString inDirectory(const QString &name) const { return directory->filePath(name); }

    const ReservedDisplays displays;
    std::unique_ptr<QTemporaryDir> directory;
};

ZARVO_TEST(TestViewerSocket)
#include "tst_viewersocket.moc"
