// SPDX-License-Identifier: MIT
#include "agent/door/backendconnection.h"
#include "tests/agent/fakebackend.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

using namespace Qt::StringLiterals;

class BackendConnectionTest final : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;

    QString path() const { return directory.filePath(u"rfb"_s); }

private slots:
    void handshakeLeadsToAnOpenSocket()
    {
        FakeBackend backend(FakeBackend::Manner::Echo);
        QVERIFY(backend.listen(path()));
        BackendConnection connection;
        QSignalSpy opened(&connection, &BackendConnection::opened);
        QSignalSpy failed(&connection, &BackendConnection::failed);
        connection.open(path());
        QCOMPARE(opened.count(), 0); // never during open()
        QTRY_COMPARE(opened.count(), 1);
        QByteArray unread = "something";
        const std::unique_ptr<QLocalSocket> socket = connection.takeSocket(&unread);
        QVERIFY(unread.isEmpty());
        socket->write("echo");
        QTRY_COMPARE(socket->bytesAvailable(), 4);
        QCOMPARE(socket->readAll(), QByteArray("echo"));
        QCOMPARE(failed.count(), 0);
    }

    // The real one sends nothing before the viewer does, but bytes must not get lost if it should.
    void bytesBehindTheHandshakeAreHandedOver()
    {
        LocalEndpoint endpoint;
        QString error;
        QVERIFY(endpoint.listen(path(), &error));
        QLocalSocket backend;
        connect(&endpoint, &LocalEndpoint::accepted, this, [&backend](int descriptor) {
            backend.setSocketDescriptor(descriptor);
            backend.write(QByteArray("RFB 003.008\n") + QByteArray::fromHex("010100000000") + "early");
        });
        BackendConnection connection;
        QSignalSpy opened(&connection, &BackendConnection::opened);
        connection.open(path());
        QTRY_COMPARE(opened.count(), 1);
        QByteArray unread;
        const std::unique_ptr<QLocalSocket> socket = connection.takeSocket(&unread);
        QTRY_COMPARE(unread + socket->peek(100), QByteArray("early"));
    }

    void backendThatDoesNotServeFails_data()
    {
        QTest::addColumn<int>("manner");
        QTest::addColumn<QString>("reason");
        QTest::newRow("missing") << -1 << u"The X server did not answer"_s;
        QTest::newRow("refusing") << int(FakeBackend::Manner::Refuse) << u"The X server refused the connection"_s;
        QTest::newRow("silent") << int(FakeBackend::Manner::Silent) << u"The X server did not answer"_s;
    }

    void backendThatDoesNotServeFails()
    {
        QFETCH(int, manner);
        QFETCH(QString, reason);
        FakeBackend backend{FakeBackend::Manner(manner)};
        QVERIFY(manner == -1 || backend.listen(path()));
        BackendConnection connection;
        QSignalSpy failed(&connection, &BackendConnection::failed);
        connection.open(path());
        QCOMPARE(failed.count(), 0); // never during open()
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), reason);
    }

    void backendThatClosesFails()
    {
        FakeBackend backend(FakeBackend::Manner::Silent);
        QVERIFY(backend.listen(path()));
        BackendConnection connection;
        QSignalSpy failed(&connection, &BackendConnection::failed);
        connection.open(path());
        QTRY_COMPARE(backend.sockets.size(), size_t{1});
        backend.sockets.front()->abort();
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(), u"The X server closed the connection"_s);
    }

    // It would get the viewer's key strokes.
    void socketOfAnotherUserIsRefused()
    {
        if (!canPlayStranger()) {
            QSKIP("only root can play another user");
        }
        QCOMPARE(::chmod(QFile::encodeName(directory.path()).constData(), 0777), 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray name = QFile::encodeName(path());
        std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
        const Stranger stranger([&address] {
            const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
            ::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address);
            ::listen(listener, 8);
        });
        QVERIFY(stranger.hasActed());
        QVERIFY(QFile::exists(path()));
        BackendConnection connection;
        QSignalSpy failed(&connection, &BackendConnection::failed);
        QSignalSpy opened(&connection, &BackendConnection::opened);
        connection.open(path());
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(opened.count(), 0);
        QFile::remove(path());
    }
};

ZARVO_TEST(BackendConnectionTest)
#include "tst_backendconnection.moc"
