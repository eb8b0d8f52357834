// SPDX-License-Identifier: MIT
#include "client/reach/viewergate.h"
#include "support/localendpoint.h"
#include "tests/client/received.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <memory>

#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestViewerGate : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        top = std::make_unique<QTemporaryDir>();
        std::array<int, 2> ends = {-1, -1};
        QVERIFY(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0);
        session = ends[0];
        gate = std::make_unique<ViewerGate>(ends[1], "RFB "_ba);
    }
    void cleanup()
    {
        gate.reset();
        ::close(session);
    }

    void firstViewerGetsTheStream_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::newRow("ordinary path") << u"tmp"_s;
        QTest::newRow("path that is too long for a socket") << QString(120, u'd');
    }
    void firstViewerGetsTheStream()
    {
        QFETCH(QString, folder);
        openSocket(folder);
        const int first = connectLocalSocket(socketPath());
        QVERIFY(first != -1);
        Received atFirst(first);
        Received atSession(session);
        QTRY_COMPARE(atFirst.bytes(), "RFB "_ba);
        QCOMPARE(::send(session, "down", 4, 0), 4);
        QTRY_COMPARE(atFirst.bytes(), "RFB down"_ba);
        QCOMPARE(::send(first, "up", 2, 0), 2);
        QTRY_COMPARE(atSession.bytes(), "up"_ba);
        const int second = connectLocalSocket(socketPath());
        Received atSecond(second);
        QTRY_VERIFY(atSecond.hasEnded());
        QCOMPARE(atSecond.bytes(), ""_ba);
        ::close(second);
        ::close(first);
        QTRY_VERIFY(atSession.hasEnded());
    }

    void directoryIsPrivateAndRemoved()
    {
        openSocket(u"tmp"_s);
        const QDir temporary(top->filePath(u"tmp"_s));
        const QStringList names = temporary.entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        QCOMPARE(names.size(), 1);
        QCOMPARE(modeOf(temporary.filePath(names.first())), 0700);
        gate.reset();
        QCOMPARE(temporary.entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    }

    void endOfTheSessionEndsTheViewersConnection()
    {
        QString error;
        QVERIFY2(gate->openPort(&error), qPrintable(error));
        QTcpSocket viewer;
        viewer.connectToHost(QHostAddress(QHostAddress::LocalHost), gate->port());
        QTRY_COMPARE(viewer.bytesAvailable(), 4);
        QCOMPARE(::send(session, "last", 4, 0), 4);
        ::shutdown(session, SHUT_RDWR);
        QTRY_COMPARE(viewer.state(), QAbstractSocket::UnconnectedState);
        QCOMPARE(viewer.readAll(), "RFB last"_ba);
    }

    void endOfTheGateEndsTheSessionsConnection()
    {
        gate.reset();
        Received atSession(session);
        QTRY_VERIFY(atSession.hasEnded());
    }

private:
    void openSocket(const QString &folder)
    {
        QVERIFY(QDir(top->path()).mkdir(folder));
        const EnvironmentVariable variable("TMPDIR", QFile::encodeName(top->filePath(folder)));
        QString error;
        QVERIFY2(gate->openSocket(&error), qPrintable(error));
    }

    [[nodiscard]] QString socketPath() const { return gate->directory().pathOf(gate->socketName()); }

    std::unique_ptr<QTemporaryDir> top;
    std::unique_ptr<ViewerGate> gate;
    int session = -1;
};

ZARVO_TEST(TestViewerGate)
#include "tst_viewergate.moc"
