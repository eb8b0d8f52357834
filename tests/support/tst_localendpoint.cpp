// SPDX-License-Identifier: MIT
#include "support/localendpoint.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class LocalEndpointTest final : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;

    QString path() const { return directory.filePath(u"socket"_s); }

private slots:
    void init() { QFile::remove(path()); }

    void accepts()
    {
        LocalEndpoint endpoint;
        QString error;
        QVERIFY(endpoint.listen(path(), &error));
        QSignalSpy accepted(&endpoint, &LocalEndpoint::accepted);
        const int client = connectLocalSocket(path());
        QVERIFY(client != -1);
        QTRY_COMPARE(accepted.count(), 1);
        const int server = accepted.first().first().toInt();
        for (const int descriptor : {client, server}) {
            QVERIFY(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
            QVERIFY(::fcntl(descriptor, F_GETFL) & O_NONBLOCK);
        }
        QCOMPARE(::write(client, "x", 1), ssize_t{1});
        char byte = 0;
        QCOMPARE(::read(server, &byte, 1), ssize_t{1});
        ::close(client);
        ::close(server);
    }

    void socketIsPrivateAndGoesWithTheObject()
    {
        {
            LocalEndpoint endpoint;
            QString error;
            const mode_t before = ::umask(0);
            const bool isListening = endpoint.listen(path(), &error);
            const mode_t after = ::umask(before);
            QVERIFY(isListening);
            QCOMPARE(after, mode_t{0}); // the mask is restored
            struct stat found = {};
            QCOMPARE(::stat(QFile::encodeName(path()).constData(), &found), 0);
            QCOMPARE(found.st_mode & 07777, mode_t{0600});
        }
        QVERIFY(!QFileInfo::exists(path()));
    }

    void staleSocketIsReplaced()
    {
        // The stale socket of a killed process: its file exists, but nobody listens.
        QVERIFY(::mknod(QFile::encodeName(path()).constData(), S_IFSOCK | 0600, 0) == 0);
        LocalEndpoint endpoint;
        QString error;
        QVERIFY(endpoint.listen(path(), &error));
        const int client = connectLocalSocket(path());
        QVERIFY(client != -1);
        ::close(client);
    }

    void socketInUseIsKept()
    {
        LocalEndpoint first;
        LocalEndpoint second;
        QString error;
        QVERIFY(first.listen(path(), &error));
        QVERIFY(!second.listen(path(), &error));
        QVERIFY(error.contains(path()) && error.contains(u"in use"_s));
        const int client = connectLocalSocket(path());
        QVERIFY(client != -1);
        ::close(client);
    }

    void otherFilesAreKept()
    {
        QFile file(path());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("text");
        file.close();
        LocalEndpoint endpoint;
        QString error;
        QVERIFY(!endpoint.listen(path(), &error));
        QVERIFY(error.contains(path()));
        QCOMPARE(QFileInfo(path()).size(), 4);
    }

    void badPathsAreReported_data()
    {
        QTest::addColumn<QString>("bad");
        QTest::newRow("empty") << QString();
        QTest::newRow("too long") << u"/tmp/"_s + QString(200, u'x');
        QTest::newRow("no such directory") << u"/nowhere/socket"_s;
    }

    void badPathsAreReported()
    {
        QFETCH(QString, bad);
        LocalEndpoint endpoint;
        QString error;
        QVERIFY(!endpoint.listen(bad, &error));
        QVERIFY(error.startsWith(u"Failed to listen on the socket \""_s + bad));
        QCOMPARE(connectLocalSocket(bad), -1);
        QVERIFY(errno != 0);
    }
};

ZARVO_TEST(LocalEndpointTest)
#include "tst_localendpoint.moc"
