// SPDX-License-Identifier: MIT
#include "agent/session/sessionlog.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QDateTime>
#include <QFileInfo>
#include <QSize>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class SessionLogTest final : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;

    QString path() const { return directory.filePath(u"server_log"_s); }

private slots:
    void init() { QFile::remove(path()); }

    void eventsHaveTheirForms()
    {
        SessionLog log;
        QString error;
        QVERIFY(log.open(path(), &error));
        const QDateTime time(QDate(2024, 3, 9), QTime(7, 5, 1, 999));
        log.ready(time);
        log.passwordAdded(u"Abcdefg1"_s);
        log.passwordExpired(u"Abcdefg1"_s);
        log.clientAuthenticated(u"127.0.0.1"_s, time, u"Zbcdefg1"_s);
        log.clientDisconnected(u"::1"_s, time);
        log.screenResized(QSize(1280, 800));
        QCOMPARE(contentOf(path()), QByteArray("RDP initialized at '2024-03-09T07:05:01'\n"
                                               "Added new password Abcdefg1\n"
                                               "Expiring password Abcdefg1\n"
                                               "Client authenticated from '127.0.0.1' at '2024-03-09T07:05:01' "
                                               "with password 'Zbcdefg1'\n"
                                               "Client disconnected from '::1' at '2024-03-09T07:05:01'\n"
                                               "Screen resized to '1280x800'\n"));
    }

    void fileIsPrivateAndAppendedTo()
    {
        {
            QFile file(path());
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("before\n");
            QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther));
        }
        SessionLog log;
        QString error;
        QVERIFY(log.open(path(), &error));
        log.screenResized(QSize(1, 2));
        QCOMPARE(contentOf(path()), QByteArray("before\nScreen resized to '1x2'\n"));
        const QFile::Permissions permissions = QFileInfo(path()).permissions();
        QVERIFY(!(permissions & (QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther)));
    }

    void freeTextCannotBecomeAnEvent_data()
    {
        QTest::addColumn<QString>("text");
        const QString event = u"Added new password Abcdefg1"_s;
        QTest::newRow("event") << event;
        QTest::newRow("after a line feed") << u"x\n"_s + event;
        QTest::newRow("after a carriage return") << u"x\r"_s + event;
        QTest::newRow("after a line separator") << u"x"_s + QChar(QChar::LineSeparator) + event;
        QTest::newRow("empty") << QString();
        QTest::newRow("line feeds") << u"\n\n\n"_s;
        QTest::newRow("where the server cuts") << QString(512 - 30, u'x') + event;
        QTest::newRow("long") << QString(100000, u'x');
    }

    void freeTextCannotBecomeAnEvent()
    {
        QFETCH(QString, text);
        SessionLog log;
        QString error;
        QVERIFY(log.open(path(), &error));
        log.log(LogWarning, text);
        const QString written = QString::fromUtf8(contentOf(path()));
        QVERIFY(written.size() <= 512);
        QCOMPARE(written.count(u'\n'), 1);
        QVERIFY(written.endsWith(u'\n'));
        QVERIFY(written.contains(u"Warning: "_s));
        QVERIFY(!written.startsWith(u"Added"_s));
        QVERIFY(!written.contains(u'\r'));
    }

    void levelThresholdHolds()
    {
        SessionLog log;
        QString error;
        QVERIFY(log.open(path(), &error));
        log.log(LogDebug1, u"hidden"_s);
        log.log(LogInfo, u"shown"_s);
        QVERIFY(!contentOf(path()).contains("hidden"));
        QVERIFY(contentOf(path()).contains("Info: shown"));
    }

    void failureToOpenIsReported()
    {
        SessionLog log;
        QString error;
        QVERIFY(!log.open(u"/nowhere/server_log"_s, &error));
        QVERIFY(error.startsWith(u"Failed to open the file \"/nowhere/server_log\": "_s));
    }
};

ZARVO_TEST(SessionLogTest)
#include "tst_sessionlog.moc"
