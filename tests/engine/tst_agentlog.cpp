// SPDX-License-Identifier: MIT
#include "engine/agentlog.h"
#include "engine/session.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

using namespace Qt::StringLiterals;

class TestAgentLog : public QObject
{
    Q_OBJECT

private slots:
    void linesChangeTheRecord_data();
    void linesChangeTheRecord();
    void lineIsTakenInPiecesOf512Characters();
    void lineOfWholePiecesDoesNotEndTheLog();
    void pipeInPlaceOfTheLogDoesNotBlock();
    void longLineIsNoEventAsAWhole();
    void readingTwiceCountsTwice();
    void onlyTheFieldsOfTheEventsChange();
    void datesAreLocalTime();
    void missingLogFails();
    void directoryInPlaceOfTheLogFails();

private:
    QTemporaryDir folder;
    const QString path = folder.filePath(u"server_log"_s);
};

namespace {

QDateTime at(int hour)
{
    return QDateTime(QDate(2024, 5, 6), QTime(hour, 8, 9));
}

/** The record before each log. */
Session knownSession()
{
    Session session;
    session.started = at(1);
    session.lastConnect = at(2);
    session.lastDisconnect = at(3);
    session.clients = 1;
    session.screenSize = QSize(640, 480);
    session.passwords = QStringList{u"old"_s};
    return session;
}

/** The fields that a log changes, as text, so that one comparison shows all differences. */
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

using Change = std::function<void(Session &)>;

void addRow(const char *name, const QByteArray &log, const Change &change)
{
    Session expected = knownSession();
    change(expected);
    QTest::newRow(name) << log << told(expected);
}

void addReadyRows()
{
    const auto nothing = [](Session &) {};
    const auto unset = [](Session &s) { s.started = QDateTime(); };
    addRow("ready", "RDP initialized at '2024-05-06T11:08:09'\n", [](Session &s) { s.started = at(11); });
    addRow("ready, no line end", "RDP initialized at '2024-05-06T11:08:09'", [](Session &s) { s.started = at(11); });
    addRow("ready, not a date", "RDP initialized at 'now'\n", unset);
    addRow("ready, empty date", "RDP initialized at ''\n", unset);
    addRow("ready, date with zone", "RDP initialized at '2024-05-06T11:08:09Z'\n", unset);
    addRow("ready, no such day", "RDP initialized at '2024-02-30T11:08:09'\n", unset);
    addRow("ready, blank behind", "RDP initialized at '2024-05-06T11:08:09' \n", nothing);
    addRow("ready, blank inside", "RDP initialized at '2024-05-06 11:08:09'\n", nothing);
    addRow("ready, no quotes", "RDP initialized at 2024-05-06T11:08:09\n", nothing);
    addRow("ready, other case", "rdp initialized at '2024-05-06T11:08:09'\n", nothing);
    addRow("ready, something before", " RDP initialized at '2024-05-06T11:08:09'\n", nothing);
    addRow("ready twice", "RDP initialized at '2024-05-06T11:08:09'\nRDP initialized at '2024-05-06T12:08:09'\n",
           [](Session &s) { s.started = at(12); });
}

void addPasswordRows()
{
    const auto nothing = [](Session &) {};
    const auto with = [](const QStringList &passwords) { return [passwords](Session &s) { s.passwords = passwords; }; };
    addRow("password added", "Added new password abc\n", with({u"old"_s, u"abc"_s}));
    addRow("password with blanks", "Added new password a b \n", with({u"old"_s, u"a b "_s}));
    addRow("empty password", "Added new password \n", with({u"old"_s, u""_s}));
    addRow("password in UTF-8", "Added new password \xc3\xa4\n", with({u"old"_s, u"\u00e4"_s}));
    addRow("password line without the last blank", "Added new password\n", nothing);
    addRow("password that looks like an event", "Added new password Expiring password old\n",
           with({u"old"_s, u"Expiring password old"_s}));
    addRow("password added twice", "Added new password a\nAdded new password a\n", with({u"old"_s, u"a"_s, u"a"_s}));
    addRow("added twice, expired once", "Added new password a\nAdded new password a\nExpiring password a\n",
           with({u"old"_s, u"a"_s}));
    addRow("the first of two equal ones expires",
           "Added new password a\nAdded new password b\nAdded new password a\nExpiring password a\n",
           with({u"old"_s, u"b"_s, u"a"_s}));
    addRow("known password expires", "Expiring password old\n", with({}));
    addRow("unknown password expires", "Expiring password new\n", nothing);
    addRow("part of a password expires", "Expiring password ol\n", nothing);
}

void addClientRows()
{
    const auto nothing = [](Session &) {};
    addRow("client comes", "Client authenticated from '10.0.0.1' at '2024-05-06T11:08:09' with password 'old'\n",
           [](Session &s) {
               s.clients = 2;
               s.lastConnect = at(11);
               s.passwords.clear();
           });
    addRow("client comes with an unknown password",
           "Client authenticated from '10.0.0.1' at '2024-05-06T11:08:09' with password 'x'\n", [](Session &s) {
               s.clients = 2;
               s.lastConnect = at(11);
           });
    addRow("one password of two equal ones is used up",
           "Added new password old\n"
           "Client authenticated from '' at '2024-05-06T11:08:09' with password 'old'\n",
           [](Session &s) {
               s.clients = 2;
               s.lastConnect = at(11);
           });
    addRow("client comes at no date", "Client authenticated from 'a' at '?' with password ''\n", [](Session &s) {
        s.clients = 2;
        s.lastConnect = QDateTime();
    });
    addRow("client with a blank in its password",
           "Client authenticated from 'a' at '2024-05-06T11:08:09' with password 'o ld'\n", nothing);
    addRow("client without a password", "Client authenticated from 'a' at '2024-05-06T11:08:09'\n", nothing);
    addRow("client line with more behind",
           "Client authenticated from 'a' at '2024-05-06T11:08:09' with password 'old'.\n", nothing);
    addRow("client goes", "Client disconnected from '10.0.0.1' at '2024-05-06T11:08:09'\n", [](Session &s) {
        s.clients = 0;
        s.lastDisconnect = at(11);
    });
    addRow("client comes and goes",
           "Client authenticated from 'a' at '2024-05-06T11:08:09' with password 'x'\n"
           "Client disconnected from 'a' at '2024-05-06T12:08:09'\n",
           [](Session &s) {
               s.lastConnect = at(11);
               s.lastDisconnect = at(12);
           });
    addRow("more clients go than came",
           "Client disconnected from 'a' at '2024-05-06T11:08:09'\n"
           "Client disconnected from 'a' at '2024-05-06T12:08:09'\n"
           "Client disconnected from 'a' at '2024-05-06T13:08:09'\n",
           [](Session &s) {
               s.clients = -2;
               s.lastDisconnect = at(13);
           });
    addRow("client goes, more behind", "Client disconnected from 'a' at '2024-05-06T11:08:09' again\n", nothing);
}

void addScreenRows()
{
    const auto nothing = [](Session &) {};
    addRow("resize", "Screen resized to '1024x768'\n", [](Session &s) { s.screenSize = QSize(1024, 768); });
    addRow("resize without height", "Screen resized to '1024x'\n", [](Session &s) { s.screenSize = QSize(1024, 0); });
    addRow("resize without width", "Screen resized to 'x768'\n", [](Session &s) { s.screenSize = QSize(0, 768); });
    addRow("resize without numbers", "Screen resized to 'x'\n", [](Session &s) { s.screenSize = QSize(0, 0); });
    addRow("resize with leading zeros", "Screen resized to '010x008'\n",
           [](Session &s) { s.screenSize = QSize(10, 8); });
    addRow("resize with a sign", "Screen resized to '-1x768'\n", nothing);
    addRow("resize with an upper-case X", "Screen resized to '1024X768'\n", nothing);
    addRow("resize, more behind", "Screen resized to '1024x768' \n", nothing);
}

} // namespace

void TestAgentLog::linesChangeTheRecord_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QString>("expected");
    const auto nothing = [](Session &) {};
    addRow("empty log", "", nothing);
    addRow("other lines", "Starting\nRDP\nScreen\nClient \n", nothing);
    addRow("events among other lines", "Starting\nScreen resized to '1x2'\nmore\n",
           [](Session &s) { s.screenSize = QSize(1, 2); });
    addRow("empty line at once", "\nScreen resized to '1x2'\n", nothing);
    addRow("nothing counts behind an empty line",
           "Screen resized to '1x2'\n\nScreen resized to '3x4'\nAdded new password a\n",
           [](Session &s) { s.screenSize = QSize(1, 2); });
    addRow("a blank is no empty line", "Screen resized to '1x2'\n \nScreen resized to '3x4'\n",
           [](Session &s) { s.screenSize = QSize(3, 4); });
    addReadyRows();
    addPasswordRows();
    addClientRows();
    addScreenRows();
}

void TestAgentLog::linesChangeTheRecord()
{
    QFETCH(QByteArray, log);
    putFile(path, log);
    Session session = knownSession();
    QString error = u"untouched"_s;
    QVERIFY(readAgentLog(&session, path, &error));
    QCOMPARE(error, u"untouched"_s);
    QTEST(told(session), "expected");
}

void TestAgentLog::lineIsTakenInPiecesOf512Characters()
{
    // The limit counts characters, not bytes.
    for (const QString &filler : {u"x"_s, u"\u00e4"_s}) {
        Session session;
        QString error;
        putFile(path, (filler.repeated(512) + u"Screen resized to '3x4'\n"_s).toUtf8());
        QVERIFY(readAgentLog(&session, path, &error));
        QCOMPARE(session.screenSize, QSize(3, 4));

        session = Session();
        putFile(path, (filler.repeated(511) + u"Screen resized to '3x4'\n"_s).toUtf8());
        QVERIFY(readAgentLog(&session, path, &error));
        QCOMPARE(session.screenSize, QSize(-1, -1));

        session = Session();
        putFile(path, (filler.repeated(1024) + u"Screen resized to '3x4'\n"_s).toUtf8());
        QVERIFY(readAgentLog(&session, path, &error));
        QCOMPARE(session.screenSize, QSize(3, 4));
    }
}

void TestAgentLog::lineOfWholePiecesDoesNotEndTheLog()
{
    for (const int length : {511, 512, 513, 1024}) {
        Session session;
        QString error;
        putFile(path, QByteArray(length, 'x') + "\nScreen resized to '3x4'\n");
        QVERIFY(readAgentLog(&session, path, &error));
        QCOMPARE(session.screenSize, QSize(3, 4));

        putFile(path, QByteArray(length, 'x') + "\n\nScreen resized to '5x6'\n");
        QVERIFY(readAgentLog(&session, path, &error));
        QCOMPARE(session.screenSize, QSize(3, 4));
    }
}

void TestAgentLog::pipeInPlaceOfTheLogDoesNotBlock()
{
    const QString pipe = folder.filePath(u"pipe"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    Session session = knownSession();
    QString error;
    QVERIFY(!readAgentLog(&session, pipe, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": Not a regular file"_s.arg(pipe));
    QCOMPARE(told(session), told(knownSession()));
}

void TestAgentLog::longLineIsNoEventAsAWhole()
{
    const QString prefix = u"Added new password "_s;
    putFile(path, (prefix + QString(600, u'p') + u"\nScreen resized to '3x4'\n"_s).toUtf8());
    Session session;
    QString error;
    QVERIFY(readAgentLog(&session, path, &error));
    QCOMPARE(session.passwords, QStringList{QString(512 - prefix.size(), u'p')});
    QCOMPARE(session.screenSize, QSize(3, 4));
}

void TestAgentLog::readingTwiceCountsTwice()
{
    putFile(path, "Added new password a\n"
                  "Client authenticated from 'a' at '2024-05-06T11:08:09' with password 'b'\n");
    Session session;
    QString error;
    for (int readings = 1; readings <= 3; ++readings) {
        QVERIFY(readAgentLog(&session, path, &error));
        QCOMPARE(session.clients, readings);
        QCOMPARE(session.passwords.size(), readings);
    }
}

void TestAgentLog::onlyTheFieldsOfTheEventsChange()
{
    putFile(path, "RDP initialized at '2024-05-06T11:08:09'\nAdded new password a\nScreen resized to '1x2'\n"
                  "Client authenticated from 'a' at '2024-05-06T11:08:09' with password 'a'\n");
    Session session;
    session.directory = u"directory"_s;
    session.display = 5;
    session.monitorPid = 6;
    session.windowMode = u"desktop"_s;
    session.name = u"name"_s;
    session.logStamp = at(7);
    session.broken = true;
    session.exited = true;
    session.exitCode = 8;
    QString error;
    QVERIFY(readAgentLog(&session, path, &error));
    QCOMPARE(session.started, at(11));
    QCOMPARE(session.directory, u"directory"_s);
    QCOMPARE(session.display, 5);
    QCOMPARE(session.monitorPid, 6);
    QCOMPARE(session.windowMode, u"desktop"_s);
    QCOMPARE(session.name, u"name"_s);
    QCOMPARE(session.logStamp, at(7));
    QCOMPARE(session.broken, true);
    QCOMPARE(session.exited, true);
    QCOMPARE(session.exitCode, 8);
}

void TestAgentLog::datesAreLocalTime()
{
    putFile(path, "RDP initialized at '2024-05-06T11:08:09'\n");
    Session session;
    QString error;
    QVERIFY(readAgentLog(&session, path, &error));
    QCOMPARE(session.started.timeSpec(), Qt::LocalTime);
    QCOMPARE(session.started, at(11));
}

void TestAgentLog::missingLogFails()
{
    const QString missing = folder.filePath(u"missing"_s);
    Session session = knownSession();
    QString error;
    QVERIFY(!readAgentLog(&session, missing, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": No such file or directory"_s.arg(missing));
    QCOMPARE(told(session), told(knownSession()));
}

void TestAgentLog::directoryInPlaceOfTheLogFails()
{
    Session session = knownSession();
    QString error;
    QVERIFY(!readAgentLog(&session, folder.path(), &error));
    QFile probe(folder.path()); // for Qt's text of the error
    QVERIFY(!probe.open(QIODevice::ReadOnly));
    QCOMPARE(error, u"Failed to open the file \"%1\": %2"_s.arg(folder.path(), probe.errorString()));
    QCOMPARE(told(session), told(knownSession()));
}

ZARVO_TEST(TestAgentLog)

#include "tst_agentlog.moc"
