// SPDX-License-Identifier: MIT
#include "client/server/serverprocess.h"
#include "tests/client/impostor.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/testmain.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTest>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestServerProcess : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { ::prctl(PR_SET_NAME, "a test"); }

    void otherProgramIsNoServer()
    {
        ::prctl(PR_SET_NAME, "other"); // another class may have run in this process before
        QVERIFY(!isServerProcess(::getpid()));
        ::prctl(PR_SET_NAME, "zarvo_server");
        QVERIFY(isServerProcess(::getpid()));
        QVERIFY(!isServerProcess(0));
        QVERIFY(!isServerProcess(-1));
        QVERIFY(!isServerProcess(1));
    }

    void zombieIsNoServer()
    {
        int held[2] = {-1, -1};
        QCOMPARE(::pipe(held), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_NAME, "zarvo_server");
            ::close(held[1]);
            char ignored = 0;
            ::_exit(::read(held[0], &ignored, 1) == 0 ? 0 : 1);
        }
        ::close(held[0]);
        QTRY_VERIFY(isServerProcess(child));
        ::close(held[1]);
        siginfo_t end = {};
        QCOMPARE(::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT), 0);
        const bool isTakenForLive = isServerProcess(child);
        QCOMPARE(::waitpid(child, nullptr, 0), child);
        QVERIFY(!isTakenForLive);
    }

    void longerNameIsNoServer()
    {
        ::prctl(PR_SET_NAME, "x (zarvo_server");
        QVERIFY(!isServerProcess(::getpid()));
        ::prctl(PR_SET_NAME, "zarvo_server) Z");
        QVERIFY(!isServerProcess(::getpid()));
    }

    void serverOfAnotherUserDoesNotCount()
    {
        if (::geteuid() != 0) {
            QSKIP("only root can become another user");
        }
        const Impostor impostor(serverEnvironment(u"root"_s, u"/"_s));
        QTRY_VERIFY(isServerProcess(impostor.pid()));
        QCOMPARE(::seteuid(65534), 0);
        const bool isOurs = isServerProcess(impostor.pid());
        QCOMPARE(::seteuid(0), 0);
        QVERIFY(!isOurs);
    }

    void environmentIsThatOfTheStart()
    {
        const Impostor impostor(serverEnvironment(u"anna"_s, u"/a:/b"_s));
        QCOMPARE(environmentOf(impostor.pid(), u"PATH"_s).value_or(QString()), u"/a:/b"_s);
        QVERIFY(!environmentOf(impostor.pid(), u"PAT"_s));
        QVERIFY(!environmentOf(999999999, u"PATH"_s));
    }

    void serversWithTheSameUserAreFound()
    {
        const QByteArray user = "tst_serverprocess-" + QByteArray::number(::getpid());
        const EnvironmentVariable variable("USER", user);
        QCOMPARE(serversOfSameUser(), QList<qint64>());
        const Impostor other(serverEnvironment(u"tst_serverprocess"_s, u"/"_s));
        QCOMPARE(serversOfSameUser(), QList<qint64>());
        const Impostor same(serverEnvironment(QString::fromLatin1(user), u"/"_s));
        QTRY_COMPARE(serversOfSameUser(), QList<qint64>{same.pid()});
    }

    void listeningServerIsFound()
    {
        ::prctl(PR_SET_NAME, "zarvo_server");
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        const quint16 port = listener.serverPort();
        QCOMPARE(serverListeningOn(port), qint64(::getpid()));
        ::prctl(PR_SET_NAME, "another");
        QCOMPARE(serverListeningOn(port), qint64(0));
        ::prctl(PR_SET_NAME, "zarvo_server");
        listener.close();
        QCOMPARE(serverListeningOn(port), qint64(0));
    }
};

ZARVO_TEST(TestServerProcess)
#include "tst_serverprocess.moc"
