// SPDX-License-Identifier: MIT
#include "engine/displays.h"
#include "engine/session.h"
#include "tests/helpers/files.h"
#include "tests/helpers/leftsocket.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/testmain.h"

#include <QDir>
#include <QLocalServer>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestDisplays : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void agentPortIsBesideTheDisplay_data();
    void agentPortIsBesideTheDisplay();
    void portIsTakenWhileAProcessListens();
    void portIsTakenWhenTheConnectionTimesOut();
    void emptyRangeHasNoDisplay_data();
    void emptyRangeHasNoDisplay();
    void firstDisplayIsTaken();
    void usedDisplayIsSkipped_data();
    void usedDisplayIsSkipped();
    void limitIsExcluded();
    void freedDisplayIsFoundAgain();
    void socketElsewhereDoesNotCount();
    void reservedNumberCannotBeReservedAgain();
    void onlyOneThreadReservesANumber();
    void reservationEndsWithItsObject();
    void reservationHoldsOnlyItsLastNumber();
    void refusedReservationHoldsNothing();
    void releasedReservationIsNotReleasedAgain();
    void keptReservationOutlivesItsObject();
    void searchReservesTheNumberItFinds();
    void searchSkipsReservedNumbers();
    void searchThatFindsNothingReservesNothing();
    void numberIsReservedUntilItsLastHoldEnds();
    void staleFilesOfKilledProcessesAreRemoved();
    void filesInUseStay_data();
    void filesInUseStay();

private:
    QTemporaryDir temporary; ///< the system's temporary directory for this test
    QByteArray previousTemporary;
};

namespace {

using Occupy = void (*)(quint16 display);

/** The listeners of one row of a test. They end with the test function. */
QList<QObject *> &listeners()
{
    static QList<QObject *> all;
    return all;
}

void listenOn(int port)
{
    auto *server = new QTcpServer;
    listeners().append(server);
    if (!server->listen(QHostAddress::LocalHost, static_cast<quint16>(port))) {
        qFatal("Failed to listen on port %d", port);
    }
}

void listenLocally(const QString &path)
{
    auto *server = new QLocalServer;
    listeners().append(server);
    if (!server->listen(path)) {
        qFatal("Failed to listen on %s", qPrintable(path));
    }
}

/** A socket that has the address, and is in the way of others even if it does not listen. */
template <typename Address>
void bindSocket(int family, const Address &address, size_t size, bool listens)
{
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto *owner = new QObject;
    QObject::connect(owner, &QObject::destroyed, [descriptor] { ::close(descriptor); });
    listeners().append(owner);
    const int on = 1;
    if (family == AF_INET6) {
        ::setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), static_cast<socklen_t>(size)) != 0 ||
        (listens && ::listen(descriptor, 1) != 0)) {
        qFatal("Failed to bind a socket: %s", std::strerror(errno));
    }
}

void listenForIpv6Alone(const in6_addr &at, int port)
{
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = at;
    address.sin6_port = htons(static_cast<quint16>(port));
    bindSocket(AF_INET6, address, sizeof address, true);
}

void bindAbstractly(quint16 display, bool listens)
{
    const QByteArray name = "/tmp/.X11-unix/X" + QByteArray::number(display);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.constData(), static_cast<size_t>(name.size()));
    bindSocket(AF_UNIX, address, offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(name.size()), listens);
}

void linkToNothing(const QString &path)
{
    if (!QFile::link(u"/nowhere/at/all"_s, path)) {
        qFatal("Failed to make %s", qPrintable(path));
    }
}

/** The content of an X server's lock file. */
QByteArray lockOf(qint64 pid)
{
    return QByteArray::number(pid).rightJustified(10) + '\n';
}

/** The pid of a process that has ended. */
qint64 pidOfAnEndedProcess()
{
    QProcess process;
    process.start(u"/bin/true"_s);
    const qint64 pid = process.waitForStarted() ? process.processId() : 0;
    process.waitForFinished();
    return pid;
}

QString socketFile(quint16 display)
{
    return QDir::temp().filePath(u".X11-unix/X%1"_s.arg(display));
}

/** Opens an outgoing connection from this port. */
void connectFrom(quint16 port)
{
    auto *server = new QTcpServer;
    auto *socket = new QTcpSocket(server);
    listeners().append(server);
    if (!server->listen(QHostAddress::LocalHost) ||
        !socket->bind(QHostAddress::LocalHost, port, QAbstractSocket::DontShareAddress)) {
        qFatal("Failed to bind to port %d", port);
    }
    socket->connectToHost(QHostAddress::LocalHost, server->serverPort());
    if (!socket->waitForConnected(20000)) {
        qFatal("Failed to connect from port %d", port);
    }
}

void occupyAll(quint16 display)
{
    listenOn(6000 + display);
    listenOn(41000 + display);
    putFile(socketFile(display), "");
    putFile(ReservedDisplays::lockPath(display), "");
    putFile(agentSocketPath(display), "");
}

} // namespace

void TestDisplays::initTestCase()
{
    previousTemporary = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(temporary.path()));
    QVERIFY(QDir(temporary.path()).mkdir(u".X11-unix"_s));
}

void TestDisplays::cleanupTestCase()
{
    if (previousTemporary.isNull()) {
        qunsetenv("TMPDIR");
    } else {
        qputenv("TMPDIR", previousTemporary);
    }
}

void TestDisplays::agentPortIsBesideTheDisplay_data()
{
    QTest::addColumn<quint16>("display");
    QTest::addColumn<quint16>("port");
    QTest::newRow("0") << quint16(0) << quint16(41000);
    QTest::newRow("12") << quint16(12) << quint16(41012);
    QTest::newRow("100") << quint16(100) << quint16(41100);
    QTest::newRow("last within 16 bits") << quint16(24535) << quint16(65535);
    QTest::newRow("first beyond 16 bits") << quint16(24536) << quint16(0);
    QTest::newRow("65535") << quint16(65535) << quint16(40999);
}

void TestDisplays::agentPortIsBesideTheDisplay()
{
    QFETCH(quint16, display);
    QTEST(agentPort(display), "port");
}

void TestDisplays::portIsTakenWhileAProcessListens()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const quint16 port = server.serverPort();
    QVERIFY(!isPortFree(port));

    const ReservedDisplays displays;
    QVERIFY(isPortFree(agentPort(displays.first())));
}

void TestDisplays::portIsTakenWhenTheConnectionTimesOut()
{
    // When the queue of connections is full, the system neither accepts nor refuses another one.
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    QCOMPARE(::bind(listener, reinterpret_cast<const sockaddr *>(&address), length), 0);
    QCOMPARE(::listen(listener, 0), 0);
    QCOMPARE(::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length), 0);
    QList<int> waiting;
    for (int count = 0; count < 8; ++count) {
        waiting.append(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        (void) ::connect(waiting.constLast(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    const bool isFree = isPortFree(ntohs(address.sin_port));
    for (const int socket : waiting) {
        ::close(socket);
    }
    ::close(listener);
    QVERIFY(!isFree);
}

void TestDisplays::emptyRangeHasNoDisplay_data()
{
    QTest::addColumn<quint16>("number");
    QTest::newRow("0") << quint16(0);
    QTest::newRow("10") << quint16(10);
    QTest::newRow("65535") << quint16(65535);
}

void TestDisplays::emptyRangeHasNoDisplay()
{
    QFETCH(quint16, number);
    QVERIFY(!findOpenDisplay(number, number));
}

void TestDisplays::firstDisplayIsTaken()
{
    const ReservedDisplays displays(3);
    QCOMPARE(findOpenDisplay(displays.first(), displays.end()), displays.first());
}

void TestDisplays::usedDisplayIsSkipped_data()
{
    QTest::addColumn<Occupy>("occupy");
    const auto add = [](const char *name, Occupy occupy) { QTest::newRow(name) << occupy; };
    add("X server listens", [](quint16 display) { listenOn(6000 + display); });
    add("agent listens", [](quint16 display) { listenOn(41000 + display); });
    add("outgoing connection", [](quint16 display) { connectFrom(41000 + display); });
    add("X socket", [](quint16 display) { putFile(socketFile(display), ""); });
    add("X lock", [](quint16 display) { putFile(ReservedDisplays::lockPath(display), ""); });
    add("agent's socket", [](quint16 display) { putFile(agentSocketPath(display), ""); });
    add("all of it", occupyAll);
    add("dangling X socket", [](quint16 display) { linkToNothing(socketFile(display)); });
    add("dangling X lock", [](quint16 display) { linkToNothing(ReservedDisplays::lockPath(display)); });
    add("dangling agent's socket", [](quint16 display) { linkToNothing(agentSocketPath(display)); });
    add("listener on [::1]", [](quint16 display) { listenForIpv6Alone(in6addr_loopback, 41000 + display); });
    add("listener on [::]", [](quint16 display) { listenForIpv6Alone(in6addr_any, 41000 + display); });
    add("abstract X socket", [](quint16 display) { bindAbstractly(display, true); });
    add("abstract X socket that does not listen", [](quint16 display) { bindAbstractly(display, false); });
}

void TestDisplays::usedDisplayIsSkipped()
{
    QFETCH(Occupy, occupy);
    const ReservedDisplays displays(3);
    const quint16 next = displays.first() + 1;
    occupy(displays.first());
    const auto open = findOpenDisplay(displays.first(), displays.end());
    const auto none = findOpenDisplay(displays.first(), next);
    qDeleteAll(listeners());
    listeners().clear();
    QCOMPARE(open, next);
    QVERIFY(!none);
}

void TestDisplays::limitIsExcluded()
{
    const ReservedDisplays displays(3);
    const quint16 last = displays.end() - 1;
    putFile(ReservedDisplays::lockPath(displays.first()), "");
    putFile(ReservedDisplays::lockPath(displays.first() + 1), "");
    QVERIFY(!findOpenDisplay(displays.first(), last));
    QCOMPARE(findOpenDisplay(displays.first(), displays.end()), last);
}

void TestDisplays::freedDisplayIsFoundAgain()
{
    const ReservedDisplays displays;
    putFile(ReservedDisplays::lockPath(displays.first()), "");
    QVERIFY(!findOpenDisplay(displays.first(), displays.end()));
    QVERIFY(QFile::remove(ReservedDisplays::lockPath(displays.first())));
    QCOMPARE(findOpenDisplay(displays.first(), displays.end()), displays.first());
}

void TestDisplays::socketElsewhereDoesNotCount()
{
    const ReservedDisplays displays;
    const QString elsewhere = temporary.filePath(u"X%1"_s.arg(displays.first()));
    putFile(elsewhere, "");
    QCOMPARE(findOpenDisplay(displays.first(), displays.end()), displays.first());
}

void TestDisplays::reservedNumberCannotBeReservedAgain()
{
    DisplayReservations all;
    for (const quint16 display : {quint16(0), quint16(100), quint16(65535)}) {
        QVERIFY(all.insert(display));
        QVERIFY(!all.insert(display));
    }
    all.remove(100);
    QVERIFY(all.insert(100));
    QVERIFY(!all.insert(0));
    all.remove(5);
    QVERIFY(all.insert(5));
}

void TestDisplays::onlyOneThreadReservesANumber()
{
    constexpr int kNumbers = 2000;
    DisplayReservations all;
    std::atomic<int> reserved = 0;
    std::vector<std::thread> threads;
    for (int count = 0; count < 4; ++count) {
        threads.emplace_back([&all, &reserved] {
            for (int display = 0; display < kNumbers; ++display) {
                reserved += all.insert(static_cast<quint16>(display)) ? 1 : 0;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    QCOMPARE(reserved.load(), kNumbers);
}

void TestDisplays::reservationEndsWithItsObject()
{
    DisplayReservations all;
    {
        DisplayReservation reservation(&all);
        QVERIFY(reservation.take(100));
        QVERIFY(!all.insert(100));
    }
    QVERIFY(all.insert(100));
}

void TestDisplays::reservationHoldsOnlyItsLastNumber()
{
    DisplayReservations all;
    DisplayReservation reservation(&all);
    QVERIFY(reservation.take(100));
    QVERIFY(reservation.take(101));
    QVERIFY(!all.insert(101));
    QVERIFY(all.insert(100));
}

void TestDisplays::refusedReservationHoldsNothing()
{
    DisplayReservations all;
    QVERIFY(all.insert(101));
    {
        DisplayReservation reservation(&all);
        QVERIFY(reservation.take(100));
        QVERIFY(!reservation.take(101));
        QVERIFY(all.insert(100));
    }
    QVERIFY(!all.insert(101));
}

void TestDisplays::releasedReservationIsNotReleasedAgain()
{
    DisplayReservations all;
    {
        DisplayReservation reservation(&all);
        QVERIFY(reservation.take(100));
        reservation.release();
        QVERIFY(all.insert(100));
    }
    QVERIFY(!all.insert(100));
}

void TestDisplays::keptReservationOutlivesItsObject()
{
    DisplayReservations all;
    {
        DisplayReservation reservation(&all);
        QVERIFY(reservation.take(100));
        reservation.keep();
        QVERIFY(reservation.take(101));
    }
    QVERIFY(!all.insert(100));
    QVERIFY(all.insert(101));
}

void TestDisplays::searchReservesTheNumberItFinds()
{
    const ReservedDisplays displays(2);
    const quint16 next = displays.first() + 1;
    putFile(ReservedDisplays::lockPath(displays.first()), "");
    DisplayReservations all;
    {
        DisplayReservation reservation(&all);
        QCOMPARE(findOpenDisplay(displays.first(), displays.end(), &reservation), next);
        QVERIFY(!all.insert(next));
        QVERIFY(all.insert(displays.first()));
    }
    QVERIFY(all.insert(next));
}

void TestDisplays::searchSkipsReservedNumbers()
{
    const ReservedDisplays displays(2);
    const quint16 next = displays.first() + 1;
    DisplayReservations all;
    DisplayReservation first(&all);
    DisplayReservation second(&all);
    DisplayReservation third(&all);
    QCOMPARE(findOpenDisplay(displays.first(), displays.end(), &first), displays.first());
    QCOMPARE(findOpenDisplay(displays.first(), displays.end(), &second), next);
    QVERIFY(!findOpenDisplay(displays.first(), displays.end(), &third));
    first.release();
    QCOMPARE(findOpenDisplay(displays.first(), displays.end(), &third), displays.first());
}

void TestDisplays::searchThatFindsNothingReservesNothing()
{
    const ReservedDisplays displays(2);
    putFile(ReservedDisplays::lockPath(displays.first()), "");
    putFile(ReservedDisplays::lockPath(displays.first() + 1), "");
    DisplayReservations all;
    DisplayReservation reservation(&all);
    QVERIFY(!findOpenDisplay(displays.first(), displays.end(), &reservation));
    QVERIFY(all.insert(displays.first()));
    QVERIFY(all.insert(displays.first() + 1));
}

void TestDisplays::numberIsReservedUntilItsLastHoldEnds()
{
    DisplayReservations all;
    {
        DisplayReservation reservation(&all);
        QVERIFY(reservation.take(100));
        all.hold(100);
    }
    all.hold(100);
    QVERIFY(!all.insert(100));
    all.remove(100);
    QVERIFY(!all.insert(100));
    all.remove(100);
    QVERIFY(all.insert(100));
}

void TestDisplays::staleFilesOfKilledProcessesAreRemoved()
{
    const ReservedDisplays displays;
    leaveSocket(agentSocketPath(displays.first()));
    leaveSocket(socketFile(displays.first()));
    putFile(ReservedDisplays::lockPath(displays.first()), lockOf(pidOfAnEndedProcess()));
    QVERIFY(!findOpenDisplay(displays.first(), displays.end()));
    removeStaleDisplayFiles(displays.first());
    QCOMPARE(findOpenDisplay(displays.first(), displays.end()), displays.first());
    removeStaleDisplayFiles(displays.first()); // does nothing without files
}

void TestDisplays::filesInUseStay_data()
{
    QTest::addColumn<Occupy>("occupy");
    const auto add = [](const char *name, Occupy occupy) { QTest::newRow(name) << occupy; };
    add("agent that listens", [](quint16 display) { listenLocally(agentSocketPath(display)); });
    add("no socket of an agent", [](quint16 display) { putFile(agentSocketPath(display), ""); });
    add("link to a socket that was left", [](quint16 display) {
        leaveSocket(socketFile(0));
        QFile::link(socketFile(0), agentSocketPath(display));
    });
    add("X server that lives", [](quint16 display) {
        putFile(ReservedDisplays::lockPath(display), lockOf(::getpid()));
        leaveSocket(socketFile(display));
    });
    add("X socket without a lock", [](quint16 display) { leaveSocket(socketFile(display)); });
    add("lock without a pid", [](quint16 display) { putFile(ReservedDisplays::lockPath(display), "?"); });
    add("lock of all processes", [](quint16 display) { putFile(ReservedDisplays::lockPath(display), lockOf(-1)); });
}

void TestDisplays::filesInUseStay()
{
    QFETCH(Occupy, occupy);
    const ReservedDisplays displays;
    occupy(displays.first());
    QVERIFY(!findOpenDisplay(displays.first(), displays.end()));
    removeStaleDisplayFiles(displays.first());
    const auto open = findOpenDisplay(displays.first(), displays.end());
    qDeleteAll(listeners());
    listeners().clear();
    QFile::remove(socketFile(displays.first()));
    QFile::remove(socketFile(0));
    QVERIFY(!open);
}

ZARVO_TEST(TestDisplays)

#include "tst_displays.moc"
