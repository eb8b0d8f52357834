// SPDX-License-Identifier: MIT
#include "client/reach/tunnel.h"
#include "tests/testmain.h"

#include <QFile>
#include <QHostAddress>
#include <QTcpSocket>
#include <QTest>

#include <cerrno>
#include <memory>

#include <signal.h>

using namespace Qt::StringLiterals;

class TestTunnel : public QObject
{
    Q_OBJECT

private slots:
    void init() { viewer = std::make_unique<QTcpSocket>(); }
    void cleanup()
    {
        viewer.reset();
        tunnel.reset();
    }

    void bytesGoBothWays()
    {
        connectThrough({u"cat"_s});
        QByteArray sent;
        for (int i = 0; i < 3'000'000; ++i) {
            sent.append(static_cast<char>(i * 31 + i / 256));
        }
        viewer->write(sent);
        QByteArray received;
        QVERIFY(QTest::qWaitFor(
            [&] {
                received += viewer->readAll();
                return received.size() >= sent.size();
            },
            kPatienceMs));
        QVERIFY(received == sent);
    }

    void onlyTheLoopbackAddressListens()
    {
        tunnel = std::make_unique<Tunnel>(QStringList{u"cat"_s});
        QString error;
        QVERIFY(tunnel->open(&error));
        viewer->connectToHost(QHostAddress(u"127.0.0.2"_s), tunnel->port());
        QTRY_COMPARE(viewer->error(), QAbstractSocket::ConnectionRefusedError);
    }

    void endOfTheCommandEndsTheConnection()
    {
        connectThrough({u"sh"_s, u"-c"_s, u"head -c 2000000 /dev/zero"_s});
        QTRY_COMPARE_WITH_TIMEOUT(viewer->state(), QAbstractSocket::UnconnectedState, kPatienceMs);
        QCOMPARE(viewer->readAll().size(), 2000000);
    }

    void endOfTheViewerEndsTheCommand()
    {
        connectThrough({u"sh"_s, u"-c"_s, u"echo $$; exec cat"_s});
        const int pid = readPid();
        viewer->disconnectFromHost();
        QTRY_VERIFY_WITH_TIMEOUT(isGone(pid), kPatienceMs);
    }

    void missingCommandEndsTheConnection()
    {
        connectThrough({u"nothing-of-the-kind"_s});
        QTRY_COMPARE_WITH_TIMEOUT(viewer->state(), QAbstractSocket::UnconnectedState, kPatienceMs);
    }

    void secondViewerIsRefused()
    {
        connectThrough({u"sh"_s, u"-c"_s, u"echo $$; exec cat"_s});
        QVERIFY(readPid() > 0);
        QTcpSocket second;
        second.connectToHost(QHostAddress(QHostAddress::LocalHost), tunnel->port());
        QTRY_COMPARE(second.error(), QAbstractSocket::ConnectionRefusedError);
        QCOMPARE(viewer->state(), QAbstractSocket::ConnectedState);
    }

    void commandEndsWithTheTunnel_data()
    {
        QTest::addColumn<QString>("script");
        QTest::newRow("on SIGTERM") << u"echo $$; exec sleep 1000"_s;
        QTest::newRow("ignores SIGTERM") << u"trap '' TERM; echo $$; while :; do sleep 1; done"_s;
    }
    void commandEndsWithTheTunnel()
    {
        QFETCH(QString, script);
        connectThrough({u"sh"_s, u"-c"_s, script});
        const int pid = readPid();
        tunnel.reset();
        QVERIFY(isGone(pid));
    }

    void slowViewerBlocksTheCommand()
    {
        viewer->setReadBufferSize(1000);
        connectThrough({u"sh"_s, u"-c"_s, u"echo $$; exec cat /dev/zero"_s});
        QTRY_VERIFY(viewer->bytesAvailable() == 1000);
        const int pid = viewer->peek(20).split('\n').first().toInt();
        QVERIFY(pid > 0);
        // It writes until the kernel's buffers are full, because this program buffers nothing.
        QByteArray written;
        int unchanged = 0;
        QVERIFY(QTest::qWaitFor(
            [&] {
                const QByteArray now = writtenBy(pid);
                unchanged = now == written ? unchanged + 1 : 0;
                written = now;
                return unchanged == 20;
            },
            kPatienceMs));
        QVERIFY(written.toLongLong() > 1000);
    }

private:
    static constexpr int kPatienceMs = 30000;

    void connectThrough(const QStringList &command)
    {
        tunnel = std::make_unique<Tunnel>(command);
        QString error;
        QVERIFY2(tunnel->open(&error), qPrintable(error));
        viewer->connectToHost(QHostAddress(QHostAddress::LocalHost), tunnel->port());
        QTRY_VERIFY_WITH_TIMEOUT(viewer->state() != QAbstractSocket::ConnectingState, kPatienceMs);
    }

    int readPid()
    {
        [[maybe_unused]] const bool came = QTest::qWaitFor([this] { return viewer->canReadLine(); }, kPatienceMs);
        return viewer->readLine().trimmed().toInt();
    }

    /** How many bytes a process has written so far. */
    static QByteArray writtenBy(int pid)
    {
        QFile file(u"/proc/%1/io"_s.arg(pid));
        const QByteArray text = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        const qsizetype start = text.indexOf("wchar: ") + 7;
        return text.mid(start, text.indexOf('\n', start) - start);
    }

    static bool isGone(int pid) { return pid > 0 && ::kill(pid, 0) == -1 && errno == ESRCH; }

    std::unique_ptr<Tunnel> tunnel;
    std::unique_ptr<QTcpSocket> viewer;
};

ZARVO_TEST(TestTunnel)
#include "tst_tunnel.moc"
