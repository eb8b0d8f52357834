// SPDX-License-Identifier: MIT
#include "engine/agentinfo.h"
#include "engine/session.h"
#include "support/localendpoint.h"
#include "tests/helpers/agentsocket.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>
#include <utility>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestAgentInfo : public QObject
{
    Q_OBJECT

private slots:
    void wholeStateIsTakenOver();
    void onlyMembersOfTheRightTypeAreTakenOver_data();
    void onlyMembersOfTheRightTypeAreTakenOver();
    void answerInPiecesIsPutTogether();
    void largeAnswerIsTaken();
    void agentIsSentNothing();
    void answerThatIsNotJsonFails_data();
    void answerThatIsNotJsonFails();
    void answerInTimeIsReadByALateReader();
    void agentThatDoesNotCloseInTimeFails_data();
    void agentThatDoesNotCloseInTimeFails();
    void missingSocketFails();
    void fileInPlaceOfTheSocketFails();
    void staleSocketFails();
    void answerOfAnotherUserDoesNotCount();
    void fullQueueIsRetriedUntilItHasRoom();

private:
    /** The record before each question to the agent. */
    [[nodiscard]] static Session knownSession();

    QTemporaryDir folder;
    const QString path = folder.filePath(u"socket"_s);
};

namespace {

/** How long the next poll() on this thread sleeps before it polls. */
thread_local unsigned long stallMs = 0;

} // namespace

/** Replaces the C library's function, with which Qt waits for sockets. */
extern "C" int ppoll(pollfd *polled, nfds_t count, const timespec *timeout, const sigset_t *mask)
{
    if (stallMs > 0) {
        QThread::msleep(std::exchange(stallMs, 0));
    }
    timespec left = timeout ? *timeout : timespec{};
    return static_cast<int>(::syscall(SYS_ppoll, polled, count, timeout ? &left : nullptr, mask, _NSIG / 8));
}

namespace {

QDateTime at(int hour)
{
    return QDateTime(QDate(2024, 5, 6), QTime(hour, 8, 9));
}

/** The fields that an agent reports, as text, so that one comparison shows all differences. */
QString told(const Session &session)
{
    const auto text = [](const QDateTime &time) { return time.isNull() ? u"null"_s : time.toString(Qt::ISODate); };
    return u"started %1, connect %2, disconnect %3, clients %4, size %5x%6, passwords [%7]"_s
        .arg(text(session.started), text(session.lastConnect), text(session.lastDisconnect))
        .arg(session.clients)
        .arg(session.screenSize.width())
        .arg(session.screenSize.height())
        .arg(session.passwords.join(u','));
}

} // namespace

Session TestAgentInfo::knownSession()
{
    Session session;
    session.started = at(1);
    session.lastConnect = at(2);
    session.lastDisconnect = at(3);
    session.clients = 7;
    session.screenSize = QSize(640, 480);
    session.passwords = QStringList{u"old"_s};
    return session;
}

void TestAgentInfo::wholeStateIsTakenOver()
{
    const AgentSocket agent(path, R"({"Started":"2024-05-06T11:08:09","LastConnect":"2024-05-06T12:08:09",
        "LastDisconnect":"2024-05-06T13:08:09","ScreenWidth":1024,"ScreenHeight":768,"Clients":2,
        "Passwords":["one","two"],"Something":{"else":[]}})");
    Session session = knownSession();
    QString error = u"untouched"_s;
    QVERIFY(readAgentInfo(&session, path, &error));
    QCOMPARE(error, u"untouched"_s);
    QCOMPARE(session.started, at(11));
    QCOMPARE(session.lastConnect, at(12));
    QCOMPARE(session.lastDisconnect, at(13));
    QCOMPARE(session.started.timeSpec(), Qt::LocalTime);
    QCOMPARE(session.screenSize, QSize(1024, 768));
    QCOMPARE(session.clients, 2);
    QCOMPARE(session.passwords, QStringList({u"one"_s, u"two"_s}));
}

void TestAgentInfo::onlyMembersOfTheRightTypeAreTakenOver_data()
{
    QTest::addColumn<QByteArray>("state");
    QTest::addColumn<Session>("expected");
    const auto add = [](const char *state, const std::function<void(Session &)> &change) {
        Session expected = knownSession();
        change(expected);
        QTest::newRow(state) << QByteArray(state) << expected;
    };
    const auto nothing = [](Session &) {};
    add("{}", nothing);
    add("null", nothing);
    add("[]", nothing);
    add("5", nothing);
    add("\"Clients\"", nothing);
    add(R"(["Clients",1])", nothing);

    add(R"({"Started":"2024-05-06T11:08:09"})", [](Session &s) { s.started = at(11); });
    add(R"({"Started":"tomorrow"})", [](Session &s) { s.started = QDateTime(); });
    add(R"({"Started":""})", [](Session &s) { s.started = QDateTime(); });
    add(R"({"Started":5})", nothing);
    add(R"({"Started":null})", nothing);
    add(R"({"Started":["2024-05-06T11:08:09"]})", nothing);
    add(R"({"LastConnect":"2024-05-06T11:08:09"})", [](Session &s) { s.lastConnect = at(11); });
    add(R"({"LastConnect":true})", nothing);
    add(R"({"LastDisconnect":"2024-05-06T11:08:09"})", [](Session &s) { s.lastDisconnect = at(11); });
    add(R"({"LastDisconnect":{}})", nothing);
    add(R"({"started":"2024-05-06T11:08:09","clients":1})", nothing);

    add(R"({"ScreenWidth":1,"ScreenHeight":2})", [](Session &s) { s.screenSize = QSize(1, 2); });
    add(R"({"ScreenWidth":0,"ScreenHeight":-5})", [](Session &s) { s.screenSize = QSize(0, -5); });
    add(R"({"ScreenWidth":1})", nothing);
    add(R"({"ScreenHeight":2})", nothing);
    add(R"({"ScreenWidth":"1","ScreenHeight":2})", nothing);
    add(R"({"ScreenWidth":1,"ScreenHeight":2.5})", nothing);
    add(R"({"ScreenWidth":2147483647,"ScreenHeight":2})", [](Session &s) { s.screenSize = QSize(2147483647, 2); });
    add(R"({"ScreenWidth":2147483648,"ScreenHeight":2})", nothing);

    add(R"({"Clients":0})", [](Session &s) { s.clients = 0; });
    add(R"({"Clients":-1})", [](Session &s) { s.clients = -1; });
    add(R"({"Clients":"1"})", nothing);
    add(R"({"Clients":1.5})", nothing);
    add(R"({"Clients":true})", nothing);
    add(R"({"Clients":1e300})", nothing);
    add(R"({"Clients":18446744073709551615})", nothing);

    add(R"({"Passwords":["a","b","a"]})", [](Session &s) { s.passwords = QStringList{u"a"_s, u"b"_s, u"a"_s}; });
    add(R"({"Passwords":["a",5,"b"]})", [](Session &s) { s.passwords = QStringList{u"a"_s, u"b"_s}; });
    add(R"({"Passwords":["",null,["x"],"b"]})", [](Session &s) { s.passwords = QStringList{u""_s, u"b"_s}; });
    add("{\"Passwords\":[\"\xc3\xa4\"]}", [](Session &s) { s.passwords = QStringList{u"\u00e4"_s}; });
    add(R"({"Passwords":[]})", [](Session &s) { s.passwords.clear(); });
    add(R"({"Passwords":null})", [](Session &s) { s.passwords.clear(); });
    add(R"({"Passwords":"a"})", [](Session &s) { s.passwords.clear(); });
    add(R"({"Passwords":{"a":"b"}})", [](Session &s) { s.passwords.clear(); });

    add("/* comment */ {\"Clients\":1} and more", [](Session &s) { s.clients = 1; });
}

void TestAgentInfo::onlyMembersOfTheRightTypeAreTakenOver()
{
    QFETCH(QByteArray, state);
    QFETCH(Session, expected);
    const AgentSocket agent(path, state);
    Session session = knownSession();
    QString error;
    QVERIFY2(readAgentInfo(&session, path, &error), qPrintable(error));
    QCOMPARE(told(session), told(expected));
}

void TestAgentInfo::answerInPiecesIsPutTogether()
{
    const AgentSocket agent(path, R"({"Clients":12,"Passwords":["one","two"]})", AgentSocket::Manner::AnswerInPieces);
    Session session;
    QString error;
    QVERIFY2(readAgentInfo(&session, path, &error), qPrintable(error));
    QCOMPARE(session.clients, 12);
    QCOMPARE(session.passwords, QStringList({u"one"_s, u"two"_s}));
}

void TestAgentInfo::largeAnswerIsTaken()
{
    const AgentSocket agent(path, "{\"Clients\":3,\"Padding\":\"" + QByteArray(500000, 'x') + "\"}");
    Session session;
    QString error;
    QVERIFY2(readAgentInfo(&session, path, &error), qPrintable(error));
    QCOMPARE(session.clients, 3);
}

void TestAgentInfo::agentIsSentNothing()
{
    const AgentSocket agent(path, "{}", AgentSocket::Manner::AnswerAndHearMore);
    Session session;
    QString error;
    QVERIFY2(readAgentInfo(&session, path, &error), qPrintable(error));
    QTRY_COMPARE(agent.disconnections(), 1);
    QCOMPARE(agent.calls(), 1);
    QCOMPARE(agent.heard(), QByteArray());
}

void TestAgentInfo::answerThatIsNotJsonFails_data()
{
    QTest::addColumn<QByteArray>("state");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("blanks") << QByteArray(" \n");
    QTest::newRow("word") << QByteArray("state");
    QTest::newRow("half an object") << QByteArray("{\"Clients\":1");
    QTest::newRow("missing value") << QByteArray("{\"Clients\":}");
    QTest::newRow("trailing comma") << QByteArray("{\"Clients\":1,}");
    QTest::newRow("trailing comma of the passwords") << QByteArray("{\"Passwords\":[\"a\",]}");
    QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf{\"Clients\":1}");
    QTest::newRow("bytes") << QByteArray("\xff\xfe\x00\x01", 4);
    QTest::newRow("nested too deep") << QByteArray(5000, '[');
}

void TestAgentInfo::answerThatIsNotJsonFails()
{
    QFETCH(QByteArray, state);
    const AgentSocket agent(path, state);
    Session session = knownSession();
    QString error;
    QVERIFY(!readAgentInfo(&session, path, &error));
    QCOMPARE(error, u"Failed to parse the info from the session: Invalid JSON"_s);
    QCOMPARE(told(session), told(knownSession()));
}

/** A busy machine may resume this process after the agent's deadline, although the answer came in time. */
void TestAgentInfo::answerInTimeIsReadByALateReader()
{
    const AgentSocket agent(path, R"({"Clients":12})");
    Session session;
    QString error;
    stallMs = 1500;
    const bool answered = readAgentInfo(&session, path, &error);
    QCOMPARE(std::exchange(stallMs, 0), 0UL); // the fault was used
    QVERIFY2(answered, qPrintable(error));
    QCOMPARE(session.clients, 12);
}

void TestAgentInfo::agentThatDoesNotCloseInTimeFails_data()
{
    QTest::addColumn<AgentSocket::Manner>("manner");
    QTest::newRow("silent") << AgentSocket::Manner::NeverAnswer;
    QTest::newRow("answers and stays") << AgentSocket::Manner::AnswerAndLinger;
    QTest::newRow("sends without end") << AgentSocket::Manner::Flood;
}

void TestAgentInfo::agentThatDoesNotCloseInTimeFails()
{
    QFETCH(AgentSocket::Manner, manner);
    const AgentSocket agent(path, R"({"Clients":1})", manner);
    Session session = knownSession();
    QString error;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!readAgentInfo(&session, path, &error));
    const qint64 elapsed = timer.elapsed();
    // An endless answer ends the wait at its limit of bytes, the others at the timeout.
    const qint64 shortest = manner == AgentSocket::Manner::Flood ? 0 : 900;
    QVERIFY2(elapsed >= shortest && elapsed < 15000, qPrintable(QString::number(elapsed)));
    QCOMPARE(error, u"Failed to get the info from the session"_s);
    QCOMPARE(told(session), told(knownSession()));
}

void TestAgentInfo::missingSocketFails()
{
    Session session = knownSession();
    QString error;
    QVERIFY(!readAgentInfo(&session, folder.filePath(u"missing"_s), &error));
    QCOMPARE(error, u"Failed to get the info from the session"_s);
    QCOMPARE(told(session), told(knownSession()));
}

void TestAgentInfo::fileInPlaceOfTheSocketFails()
{
    const QString file = folder.filePath(u"file"_s);
    putFile(file, R"({"Clients":1})");
    Session session = knownSession();
    QString error;
    QVERIFY(!readAgentInfo(&session, file, &error));
    QCOMPARE(error, u"Failed to get the info from the session"_s);
    QCOMPARE(told(session), told(knownSession()));
}

void TestAgentInfo::staleSocketFails()
{
    const QString abandoned = folder.filePath(u"abandoned"_s);
    {
        const AgentSocket agent(path, "{}");
        QCOMPARE(::link(QFile::encodeName(path).constData(), QFile::encodeName(abandoned).constData()), 0);
    }
    QVERIFY(QFile::exists(abandoned));
    Session session = knownSession();
    QString error;
    QVERIFY(!readAgentInfo(&session, abandoned, &error));
    QCOMPARE(error, u"Failed to get the info from the session"_s);
    QCOMPARE(told(session), told(knownSession()));
}

void TestAgentInfo::answerOfAnotherUserDoesNotCount()
{
    if (!canPlayStranger()) {
        QSKIP("Only root can play another user");
    }
    const QTemporaryDir open(u"/tmp/zarvo-stranger-XXXXXX"_s);
    QCOMPARE(::chmod(QFile::encodeName(open.path()).constData(), 0777), 0);
    const QByteArray name = QFile::encodeName(open.filePath(u"squatted"_s));
    const Stranger stranger([&name] {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
        const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
        ::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        ::listen(listener, 8);
        if (::fork() == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL); // ends with the stranger
            for (;;) {
                const int connection = ::accept(listener, nullptr, nullptr);
                constexpr char kLie[] = R"({"Clients":99,"Passwords":["stranger"]})";
                [[maybe_unused]] const ssize_t sent = ::send(connection, kLie, sizeof kLie - 1, MSG_NOSIGNAL);
                ::close(connection);
                if (sent < 0) {
                    ::_exit(0);
                }
            }
        }
    });
    QVERIFY(stranger.hasActed());
    Session session = knownSession();
    QString error;
    QVERIFY(!readAgentInfo(&session, QFile::decodeName(name), &error));
    QCOMPARE(error, u"Failed to get the info from the session"_s);
    QCOMPARE(told(session), told(knownSession()));
}

void TestAgentInfo::fullQueueIsRetriedUntilItHasRoom()
{
    const QString full = folder.filePath(u"full"_s);
    const QByteArray name = QFile::encodeName(full);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    QCOMPARE(::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    QCOMPARE(::listen(listener, 0), 0);
    const int waiting = connectLocalSocket(full);
    QVERIFY(waiting != -1);
    QCOMPARE(connectLocalSocket(full), -1);
    QCOMPARE(errno, EAGAIN);

    std::thread agent([listener] {
        ::usleep(100000); // the question has been asked meanwhile, or finds room at once
        for (int count = 0; count < 2; ++count) {
            const int connection = ::accept(listener, nullptr, nullptr);
            [[maybe_unused]] const ssize_t sent = ::send(connection, R"({"Clients":5})", 13, MSG_NOSIGNAL);
            ::close(connection);
        }
    });
    Session session;
    QString error;
    const bool answered = readAgentInfo(&session, full, &error);
    if (!answered) {
        ::close(connectLocalSocket(full)); // lets the thread end
    }
    agent.join();
    ::close(waiting);
    ::close(listener);
    QVERIFY2(answered, qPrintable(error));
    QCOMPARE(session.clients, 5);
}

ZARVO_TEST(TestAgentInfo)

#include "tst_agentinfo.moc"
