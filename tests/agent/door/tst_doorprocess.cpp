// SPDX-License-Identifier: MIT
#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"
#include "agent/door/doorprocess.h"
#include "tests/agent/confined/fakeagent.h"
#include "tests/agent/confined/visitorends.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QDir>
#include <QTest>

#include <csignal>

#include <sys/wait.h>

using namespace Qt::StringLiterals;

/** With the real program. */
class DoorProcessTest final : public QObject
{
    Q_OBJECT

private:
    const TlsPair pair = TlsPair::make();
    std::unique_ptr<TestLog> log;
    std::unique_ptr<DoorProcess> process;
    std::array<int, 2> client = {-1, -1};  ///< the visitor's, ours
    std::array<int, 2> control = {-1, -1}; ///< ours, the process's

    /** The pids of our children. */
    static QList<pid_t> children(pid_t parent = ::getpid())
    {
        QList<pid_t> pids;
        const QByteArray text = contentOf(u"/proc/%1/task/%1/children"_s.arg(parent));
        for (const QByteArray &pid : text.simplified().split(' ')) {
            if (!pid.isEmpty()) {
                pids.append(pid.toInt());
            }
        }
        return pids;
    }

    /** The servant; 0 if there is none, or none yet. */
    static pid_t servant()
    {
        for (const pid_t child : children()) {
            if (contentOf(u"/proc/%1/comm"_s.arg(child)) == "session-door\n") {
                return child;
            }
        }
        return 0;
    }

    static void killServant()
    {
        const pid_t pid = servant();
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }

    static VisitorOrder order(quint32 id, bool tls = false)
    {
        VisitorOrder made;
        made.id = id;
        made.offersPlain = true;
        made.offersTls = tls;
        made.challenge = "0123456789abcdef";
        return made;
    }

    /** A new visitor is handed over. */
    [[nodiscard]] bool receive(quint32 id, bool tls = false)
    {
        closeAll();
        client = makePair();
        control = makeControlPair();
        QString error;
        const bool isReceived = process->receive(order(id, tls), client[1], control[1], &error);
        ::close(std::exchange(client[1], -1));
        ::close(std::exchange(control[1], -1));
        return isReceived && error.isEmpty();
    }

    [[nodiscard]] bool speaks() const
    {
        writeBytes(client[0], "RFB 003.008\n");
        return readBytes(client[0], 1).size() == 1;
    }

    void closeAll()
    {
        for (int *descriptor : {&client[0], &client[1], &control[0], &control[1]}) {
            if (*descriptor != -1) {
                ::close(std::exchange(*descriptor, -1));
            }
        }
    }

private slots:
    void init()
    {
        log = std::make_unique<TestLog>();
        process = std::make_unique<DoorProcess>(ZARVO_SESSION_DOOR);
    }

    void cleanup()
    {
        const pid_t pid = servant();
        process.reset();
        closeAll();
        if (pid != 0) {
            ::waitpid(pid, nullptr, 0); // it ends because we have closed its socket
        }
        log.reset();
    }

    void programStartsForTheFirstVisitor()
    {
        process->setCertificate(pair.certificatePem);
        QCOMPARE(servant(), 0);
        QVERIFY(receive(1));
        QVERIFY(speaks());
        const pid_t first = servant();
        QVERIFY(first != 0);
        QVERIFY(receive(2));
        QVERIFY(speaks());
        QCOMPARE(servant(), first);
    }

    void programServesAVisitorOverTls()
    {
        process->setCertificate(pair.certificatePem);
        QVERIFY(receive(1, true));
        FakeAgent agent(std::exchange(control[0], -1), pair.key.get());
        writeBytes(client[0], QByteArray("RFB 003.008\n") + QByteArray::fromHex("13000200000105"));
        QCOMPARE(readBytes(client[0], 12).size(), 12);
        TlsPeer peer(client[0], TLS1_3_VERSION);
        QVERIFY(peer.connect());
        QCOMPARE(peer.read(16), QByteArray("0123456789abcdef"));
        peer.write("fedcba9876543210");
        QCOMPARE(peer.read(4), QByteArray(4, '\0'));
    }

    void programStartsAgainAfterItWasKilled()
    {
        process->setCertificate(pair.certificatePem);
        QVERIFY(receive(1));
        QVERIFY(speaks());
        const pid_t first = servant();
        killServant();
        QVERIFY(!readToTheEnd(client[0]).isNull()); // its visitors end with it
        QVERIFY(receive(2, true));                  // before we have heard of it
        QVERIFY(speaks());
        QVERIFY(servant() != first);
        FakeAgent agent(std::exchange(control[0], -1), pair.key.get());
        writeBytes(client[0], QByteArray::fromHex("13000200000105"));
        QCOMPARE(readBytes(client[0], 11).size(), 11);
        TlsPeer peer(client[0], TLS1_2_VERSION);
        QVERIFY(peer.connect()); // it has been told the certificate again
    }

    void deathOfTheProgramIsLogged()
    {
        QVERIFY(receive(1));
        QVERIFY(speaks());
        killServant();
        QTRY_VERIFY(log->lines.contains(u"Warning: The process that receives visitors has ended"_s));
        QVERIFY(receive(2));
        QVERIFY(speaks());
    }

    void endedVisitorIsBrokenOff()
    {
        QVERIFY(receive(1));
        QVERIFY(speaks());
        const std::array<int, 2> other = std::exchange(client, {-1, -1});
        const std::array<int, 2> otherControl = std::exchange(control, {-1, -1});
        QVERIFY(receive(2));
        QVERIFY(speaks());
        process->end(2);
        QVERIFY(!readToTheEnd(client[0]).isNull());
        QVERIFY(!receivePacket(control[0]));
        process->end(2); // it is not there any more
        process->end(99);
        writeBytes(other[0], "\x02"); // the first one goes on
        QCOMPARE(readBytes(other[0], 1 + 16).right(16), QByteArray("0123456789abcdef"));
        ::close(other[0]);
        ::close(otherControl[0]);
    }

    // Each visitor costs a process only as long as it is there.
    void processesOfVisitorsAreReaped()
    {
        for (quint32 id = 1; id <= 20; ++id) {
            QVERIFY(receive(id));
            QVERIFY(speaks());
        }
        closeAll();
        QTRY_VERIFY(children(servant()).isEmpty());
    }

    void programThatIsMissingIsReported()
    {
        process = std::make_unique<DoorProcess>("/nonexistent/session-door");
        client = makePair();
        control = makeControlPair();
        QString error;
        if (process->receive(order(1), client[1], control[1], &error)) {
            // The program is loaded later, so the visitor is closed.
            ::close(std::exchange(client[1], -1));
            ::close(std::exchange(control[1], -1));
            QVERIFY(!readToTheEnd(client[0]).isNull());
        } else {
            QVERIFY(!error.isEmpty());
        }
        while (::waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }

    // The secrets of the user's environment are not within an attacker's reach.
    void programHasNoEnvironmentAndNoOtherFiles()
    {
        QVERIFY(receive(1));
        QVERIFY(speaks());
        const pid_t pid = servant();
        QCOMPARE(contentOf(u"/proc/%1/environ"_s.arg(pid)), QByteArray(""));
        const QDir descriptors(u"/proc/%1/fd"_s.arg(pid));
        QTRY_COMPARE(descriptors.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size(), 5);
        QVERIFY(contentOf(u"/proc/%1/status"_s.arg(pid)).contains("NoNewPrivs:\t1\n"));
    }

    void kernelThatConfinesEverythingIsNotWarnedOf()
    {
        QVERIFY(receive(1));
        QVERIFY(speaks());
        const QByteArray status = contentOf(u"/proc/%1/status"_s.arg(servant()));
        if (!status.contains("Seccomp:\t2\n")) {
            QSKIP("this kernel does not filter system calls");
        }
        QCoreApplication::processEvents();
        const QStringList warnings = log->lines.filter(u"it does not filter"_s);
        QVERIFY(warnings.isEmpty());
    }
};

ZARVO_TEST(DoorProcessTest)
#include "tst_doorprocess.moc"
