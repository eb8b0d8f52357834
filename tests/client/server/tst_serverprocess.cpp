// SPDX-License-Identifier: MIT
#include "client/server/serverprocess.h"
#include "tests/client/impostor.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
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
        const EnvironmentVariable variable("USER", "anna");
        const Impostor impostor(serverEnvironment(u"anna"_s, u"/a:/b"_s));
        QCOMPARE(environmentOf(impostor.pid(), u"PATH"_s).value_or(QString()), u"/a:/b"_s);
        QVERIFY(!environmentOf(impostor.pid(), u"PAT"_s));
        QVERIFY(!environmentOf(999999999, u"PATH"_s));
    }

    void serversWithTheSameUserAreFound()
    {
        const EnvironmentVariable variable("USER", kUser);
        QCOMPARE(serversOfSameUser(), QList<qint64>());
        const Impostor other(serverEnvironment(u"tst_serverprocess"_s, u"/"_s));
        QCOMPARE(serversOfSameUser(), QList<qint64>());
        const Impostor same(serverEnvironment(QString::fromLatin1(kUser), u"/"_s));
        QTRY_COMPARE(serversOfSameUser(), QList<qint64>{same.pid()});
        // The temporary directory of the server may be another one than ours.
        const QTemporaryDir folder;
        const EnvironmentVariable temporary("TMPDIR", QFile::encodeName(folder.path()));
        QCOMPARE(serversOfSameUser(), QList<qint64>{same.pid()});
    }

    void serverIsFoundByThePortThatItListensOn()
    {
        const EnvironmentVariable variable("USER", kUser);
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        const quint16 port = listener.serverPort();
        QCOMPARE(serverListeningOn(port), qint64(0)); // some program of ours
        const Impostor server(serverEnvironment(QString::fromLatin1(kUser), u"/"_s));
        QTRY_COMPARE(serverListeningOn(port), server.pid());
        listener.close();
        QCOMPARE(serverListeningOn(port), qint64(0));
    }

    void portOfAnotherUserIsNotOurServers()
    {
        if (!canPlayStranger()) {
            QSKIP("Only root can play another user");
        }
        const EnvironmentVariable variable("USER", kUser);
        const Impostor server(serverEnvironment(QString::fromLatin1(kUser), u"/"_s));
        QTRY_VERIFY(isServerProcess(server.pid()));
        quint16 port = 0;
        {
            QTcpServer free;
            QVERIFY(free.listen(QHostAddress::LocalHost));
            port = free.serverPort();
        }
        const Stranger stranger([port] {
            sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_port = htons(port);
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
            if (::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
                ::listen(listener, 1) != 0) {
                ::_exit(1);
            }
        });
        QVERIFY(stranger.hasActed());
        QCOMPARE(serverListeningOn(port), qint64(0));
    }

private:
    inline static const QByteArray kUser = "tst_serverprocess-" + QByteArray::number(::getpid());
};

ZARVO_TEST(TestServerProcess)
#include "tst_serverprocess.moc"
