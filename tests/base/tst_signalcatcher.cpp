// SPDX-License-Identifier: MIT
#include "base/signalcatcher.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/testmain.h"

#include <QSignalSpy>
#include <QTest>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestSignalCatcher : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void numberIsLoggedAndEmitsItsSignals_data();
    void numberIsLoggedAndEmitsItsSignals();
    void numbersArriveOneByOneInOrder();
    void realSignalIsCaught_data();
    void realSignalIsCaught();
    void handlerKeepsErrno();
    void fullPairLosesSignalsInsteadOfBlocking();
    void pairIsConnectedAndNotInherited();
    void catcherDoesNotCloseThePair();

private:
    void send(qint32 number) const { QCOMPARE(::write(ends[0], &number, sizeof number), ssize_t(sizeof number)); }

    std::array<int, 2> ends{};
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SignalCatcher> catcher;
    QStringList events; ///< log lines and signals in the order in which they came
};

namespace {

constexpr int kPatienceMs = 30000;

/** Restores the old action of a signal. */
class KeptAction final
{
public:
    explicit KeptAction(int number_)
        : number(number_)
    {
        ::sigaction(number, nullptr, &action);
    }
    ~KeptAction() { ::sigaction(number, &action, nullptr); }
    Q_DISABLE_COPY_MOVE(KeptAction)

private:
    const int number;
    struct sigaction action = {};
};

} // namespace

void TestSignalCatcher::init()
{
    QVERIFY(createSignalPair(ends.data()));
    logger = std::make_unique<CollectingLogger>();
    catcher = std::make_unique<SignalCatcher>(ends[1]);
    events.clear();
    const auto record = [this](const QString &event) { events += logger->takeLines() << event; };
    connect(catcher.get(), &SignalCatcher::gotHUP, this, [record] { record(u"gotHUP"_s); });
    connect(catcher.get(), &SignalCatcher::gotTERM, this, [record] { record(u"gotTERM"_s); });
    connect(catcher.get(), &SignalCatcher::gotINT, this, [record] { record(u"gotINT"_s); });
    connect(catcher.get(), &SignalCatcher::gotUSR1, this, [record] { record(u"gotUSR1"_s); });
    connect(catcher.get(), &SignalCatcher::gotUSR2, this, [record] { record(u"gotUSR2"_s); });
    connect(catcher.get(), &SignalCatcher::gotSig, this, [record](int number) { record(u"gotSig %1"_s.arg(number)); });
}

void TestSignalCatcher::cleanup()
{
    setSignalWriteEnd(-1);
    catcher.reset();
    logger.reset();
    for (const int end : ends) {
        ::close(end);
    }
}

void TestSignalCatcher::numberIsLoggedAndEmitsItsSignals_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QStringList>("expected");
    const auto add = [](int number, const QString &name, const QStringList &gotNames) {
        QTest::addRow("%d", number) << number
                                    << QStringList(QStringList{u"Debug1: Got signal '%1'"_s.arg(name)} + gotNames +
                                                   QStringList{u"gotSig %1"_s.arg(number)});
    };
    add(1, u"HUP"_s, {u"gotHUP"_s});
    add(2, u"INT"_s, {u"gotINT"_s});
    add(10, u"USR1"_s, {u"gotUSR1"_s});
    add(12, u"USR2"_s, {u"gotUSR2"_s});
    add(15, u"TERM"_s, {u"gotTERM"_s});
    for (const int other : {3, 0, 9, 11, 14, 16, 64, 256, -1, 0x01000000}) {
        add(other, QString::number(other), {});
    }
}

void TestSignalCatcher::numberIsLoggedAndEmitsItsSignals()
{
    QFETCH(const int, number);
    send(number);
    QSignalSpy spy(catcher.get(), &SignalCatcher::gotSig);
    QVERIFY(spy.wait(kPatienceMs));
    QTEST(events, "expected");
}

void TestSignalCatcher::numbersArriveOneByOneInOrder()
{
    for (const int number : {15, 1, 3, 1, 15}) {
        send(number);
    }
    QSignalSpy spy(catcher.get(), &SignalCatcher::gotSig);
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 5, kPatienceMs);
    QCOMPARE(events,
             (QStringList{u"Debug1: Got signal 'TERM'"_s, u"gotTERM"_s, u"gotSig 15"_s, u"Debug1: Got signal 'HUP'"_s,
                          u"gotHUP"_s, u"gotSig 1"_s, u"Debug1: Got signal '3'"_s, u"gotSig 3"_s,
                          u"Debug1: Got signal 'HUP'"_s, u"gotHUP"_s, u"gotSig 1"_s, u"Debug1: Got signal 'TERM'"_s,
                          u"gotTERM"_s, u"gotSig 15"_s}));
}

void TestSignalCatcher::realSignalIsCaught_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("HUP") << SIGHUP << QStringList{u"Debug1: Got signal 'HUP'"_s, u"gotHUP"_s, u"gotSig 1"_s};
    QTest::newRow("INT") << SIGINT << QStringList{u"Debug1: Got signal 'INT'"_s, u"gotINT"_s, u"gotSig 2"_s};
    QTest::newRow("USR1") << SIGUSR1 << QStringList{u"Debug1: Got signal 'USR1'"_s, u"gotUSR1"_s, u"gotSig 10"_s};
    QTest::newRow("USR2") << SIGUSR2 << QStringList{u"Debug1: Got signal 'USR2'"_s, u"gotUSR2"_s, u"gotSig 12"_s};
    QTest::newRow("TERM") << SIGTERM << QStringList{u"Debug1: Got signal 'TERM'"_s, u"gotTERM"_s, u"gotSig 15"_s};
}

void TestSignalCatcher::realSignalIsCaught()
{
    QFETCH(const int, number);
    const KeptAction kept(number);
    setSignalWriteEnd(ends[0]);
    catchSignal(number);
    QCOMPARE(::raise(number), 0);
    QCOMPARE(events, QStringList()); // the handler itself only writes
    QSignalSpy spy(catcher.get(), &SignalCatcher::gotSig);
    QVERIFY(spy.wait(kPatienceMs));
    QTEST(events, "expected");
}

void TestSignalCatcher::handlerKeepsErrno()
{
    const KeptAction kept(SIGUSR1);
    setSignalWriteEnd(-1); // so that the write in the handler fails
    catchSignal(SIGUSR1);
    errno = EXDEV;
    ::raise(SIGUSR1);
    QCOMPARE(errno, EXDEV);
}

void TestSignalCatcher::fullPairLosesSignalsInsteadOfBlocking()
{
    const KeptAction kept(SIGUSR1);
    const qint32 number = 3;
    int sent = 0;
    while (::write(ends[0], &number, sizeof number) == ssize_t(sizeof number)) {
        ++sent;
    }
    QCOMPARE(errno, EAGAIN);
    setSignalWriteEnd(ends[0]);
    catchSignal(SIGUSR1);
    ::raise(SIGUSR1); // a handler that blocks would not return
    QSignalSpy spy(catcher.get(), &SignalCatcher::gotSig);
    QSignalSpy usr1Spy(catcher.get(), &SignalCatcher::gotUSR1);
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), sent, kPatienceMs);
    QCOMPARE(usr1Spy.size(), 0);
}

void TestSignalCatcher::pairIsConnectedAndNotInherited()
{
    catcher.reset(); // so that it does not take the byte
    for (const int end : ends) {
        QVERIFY(::fcntl(end, F_GETFD) & FD_CLOEXEC);
    }
    QCOMPARE(::write(ends[0], "x", 1), 1);
    char byte = 0;
    QCOMPARE(::read(ends[1], &byte, 1), 1);
    QCOMPARE(byte, 'x');
}

void TestSignalCatcher::catcherDoesNotCloseThePair()
{
    catcher.reset();
    for (const int end : ends) {
        QVERIFY(::fcntl(end, F_GETFD) != -1);
    }
}

ZARVO_TEST(TestSignalCatcher)

#include "tst_signalcatcher.moc"
