// SPDX-License-Identifier: MIT
#include "client/reach/streampump.h"
#include "tests/client/received.h"
#include "tests/testmain.h"

#include <QSignalSpy>
#include <QTest>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/** Threads play the session and the viewer. */
class TestStreamPump : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { std::signal(SIGPIPE, SIG_IGN); }
    void init()
    {
        QVERIFY(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, viewer.data()) == 0);
        QVERIFY(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, session.data()) == 0);
    }
    void cleanup()
    {
        for (int *descriptor : {viewer.data(), &viewer[1], session.data(), &session[1]}) {
            shut(descriptor);
        }
    }

    void bytesGoBothWaysAtOnce()
    {
        const QByteArray down = pattern(3'000'000);
        const QByteArray up = pattern(2'000'000);
        QByteArray gotDown;
        QByteArray gotUp;
        std::thread viewerWriter([&] { writeAll(viewer[0], up); });
        std::thread sessionWriter([&] { writeAll(session[0], down); });
        std::thread viewerReader([&] { gotDown = readBytes(viewer[0], down.size()); });
        std::thread sessionReader([&] {
            gotUp = readBytes(session[0], up.size());
            sessionWriter.join(); // before the end of the session
            shut(session.data());
        });
        StreamPump pump(viewer[1], viewer[1], session[1]);
        pump.start();
        QTRY_VERIFY(pump.isOver());
        cleanup(); // so that a reader who waits in vain ends
        viewerWriter.join();
        viewerReader.join();
        sessionReader.join();
        QVERIFY(gotDown == down);
        QVERIFY(gotUp == up);
    }

    void whatWasReadBeforeComesFirst()
    {
        writeAll(session[0], "second");
        StreamPump pump(viewer[1], viewer[1], session[1]);
        pump.start("first ");
        shut(session.data());
        QTRY_VERIFY(pump.isOver());
        QCOMPARE(readBytes(viewer[0], 12), "first second"_ba);
    }

    void endOfTheInputIsPassedOnAndAnswersStillCome()
    {
        StreamPump pump(viewer[1], viewer[1], session[1]);
        pump.start();
        ::shutdown(viewer[0], SHUT_WR);
        Received atSession(session[0]);
        Received atViewer(viewer[0]);
        QTRY_VERIFY(atSession.hasEnded());
        QCOMPARE(atSession.bytes(), ""_ba);
        QVERIFY(!pump.isOver());
        writeAll(session[0], "answer");
        QTRY_COMPARE(atViewer.bytes(), "answer"_ba);
        shut(session.data());
        QTRY_VERIFY(pump.isOver());
        QCOMPARE(pump.outputError(), 0);
    }

    void goneReaderOfAPipeIsTheEndBeforeAByteIsWritten()
    {
        std::array<int, 2> pipe = {-1, -1};
        QVERIFY(::pipe2(pipe.data(), O_CLOEXEC) == 0);
        StreamPump pump(viewer[1], pipe[1], session[1]);
        const QSignalSpy finished(&pump, &StreamPump::finished);
        pump.start();
        ::close(pipe[0]);
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(pump.outputError(), 0);
        ::close(pipe[1]);
    }

    void fullDiskIsReported()
    {
        const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
        QVERIFY(full != -1);
        StreamPump pump(viewer[1], full, session[1]);
        pump.start();
        writeAll(session[0], "x");
        QTRY_VERIFY(pump.isOver());
        QCOMPARE(pump.outputError(), ENOSPC);
        ::close(full);
    }

    void slowReaderHoldsTheSourceUp()
    {
        std::array<int, 2> pipe = {-1, -1};
        QVERIFY(::pipe2(pipe.data(), O_CLOEXEC) == 0);
        StreamPump pump(viewer[1], pipe[1], session[1]);
        pump.start();
        // Nobody reads the pipe. The session can send until the buffers are full, and no more.
        const QByteArray block(65536, 'x');
        qsizetype sent = 0;
        int refused = 0;
        QVERIFY(QTest::qWaitFor(
            [&] {
                const ssize_t count = ::send(session[0], block.constData(), size_t(block.size()), MSG_DONTWAIT);
                sent += std::max<qsizetype>(count, 0);
                refused = count == -1 ? refused + 1 : 0;
                return refused == 20;
            },
            30000));
        std::thread closing([this] { shut(session.data()); });
        closing.join();
        qsizetype received = 0;
        std::thread reading([&] { received = readBytes(pipe[0], sent).size(); });
        QTRY_VERIFY(pump.isOver());
        ::close(pipe[1]);
        reading.join();
        ::close(pipe[0]);
        QCOMPARE(received, sent);
    }

private:
    static QByteArray pattern(int size)
    {
        QByteArray bytes(size, '\0');
        for (int i = 0; i < size; ++i) {
            bytes[i] = static_cast<char>(i * 31 + i / 256);
        }
        return bytes;
    }

    static void writeAll(int descriptor, const QByteArray &bytes)
    {
        for (qsizetype done = 0; done < bytes.size();) {
            const ssize_t count =
                ::send(descriptor, bytes.constData() + done, size_t(bytes.size() - done), MSG_NOSIGNAL);
            if (count <= 0) {
                return;
            }
            done += count;
        }
    }

    static QByteArray readBytes(int descriptor, qsizetype size)
    {
        QByteArray bytes(size, '\0');
        qsizetype done = 0;
        while (done < size) {
            const ssize_t count = ::read(descriptor, bytes.data() + done, size_t(size - done));
            if (count <= 0) {
                break;
            }
            done += count;
        }
        return bytes.first(done);
    }

    static void shut(int *descriptor)
    {
        if (*descriptor != -1) {
            ::shutdown(*descriptor, SHUT_RDWR);
            ::close(*descriptor);
            *descriptor = -1;
        }
    }

    std::array<int, 2> viewer{};  ///< the viewer has the first end
    std::array<int, 2> session{}; ///< the session has the first end
};

ZARVO_TEST(TestStreamPump)
#include "tst_streampump.moc"
