// SPDX-License-Identifier: MIT
#include "client/reach/remotehost.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestRemoteHost : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { qunsetenv("ZARVO_SSH"); }

    void locationBecomesACommand_data()
    {
        QTest::addColumn<QString>("location");
        QTest::addColumn<QString>("end"); ///< the end of the command; empty: refused
        QTest::newRow("whole") << u"ssh://me@far.example:2222/zarvo_sci"_s
                               << u"-T -p 2222 -l me -W 127.0.0.1:41100 -- far.example"_s;
        QTest::newRow("host only") << u"ssh://far"_s << u"-T -W 127.0.0.1:41100 -- far"_s;
        QTest::newRow("capital letters") << u"ssh://me@MyHost:22/x"_s
                                         << u"-T -p 22 -l me -W 127.0.0.1:41100 -- MyHost"_s;
        QTest::newRow("other scheme") << u"http://far/"_s << QString();
        QTest::newRow("none") << QString() << QString();
        QTest::newRow("no host") << u"ssh:///x"_s << QString();
        QTest::newRow("option for a host") << u"ssh://-oProxyCommand=x/"_s << QString();
        QTest::newRow("option for a user") << u"ssh://-oProxyCommand=x@far/"_s << QString();
        QTest::newRow("blank in the user") << u"ssh://a%20b@far/"_s << QString();
        QTest::newRow("semicolon") << u"ssh://a;b@far/"_s << QString();
    }
    void locationBecomesACommand()
    {
        QFETCH(QString, location);
        QFETCH(QString, end);
        qputenv("ZARVO_SSH", "true -F \"a file\"");
        const std::unique_ptr<RemoteHost> host = RemoteHost::fromLocation(location);
        QCOMPARE(host == nullptr, end.isEmpty());
        if (host) {
            const QStringList command = host->streamCommand(41100);
            QCOMPARE(command.first(3), (QStringList{u"true"_s, u"-F"_s, u"a file"_s}));
            QVERIFY2(command.join(u' ').endsWith(end), qPrintable(command.join(u' ')));
        }
    }

    void connectionIsSharedIfItsSocketPathFits()
    {
        qputenv("ZARVO_SSH", "true");
        const QTemporaryDir top;
        QVERIFY(isShared());
        const QString deep = top.filePath(QString(100, u'd'));
        QVERIFY(QDir().mkdir(deep));
        const EnvironmentVariable variable("TMPDIR", QFile::encodeName(deep));
        QVERIFY(!isShared());
    }

    void idWithShellSyntaxIsRefused()
    {
        qputenv("ZARVO_SSH", "true");
        const std::unique_ptr<RemoteHost> host = RemoteHost::fromLocation(u"ssh://far"_s);
        ConnectionOffer offer;
        Failure failure;
        QVERIFY(!host->requestOffer(u"; rm -r x"_s, &offer, &failure));
        QVERIFY(failure.code == ExitCode::NoSuchSession);
    }

private:
    static bool isShared()
    {
        const std::unique_ptr<RemoteHost> host = RemoteHost::fromLocation(u"ssh://far"_s);
        return host && host->streamCommand(1).contains(u"ControlMaster=auto"_s);
    }
};

ZARVO_TEST(TestRemoteHost)
#include "tst_remotehost.moc"
