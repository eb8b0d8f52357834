// SPDX-License-Identifier: MIT
#include "client/reach/remotehost.h"
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
        QTest::newRow("whole") << u"ssh://me@far.example:2222/zarvo_sci"_s << u"-p 2222 -l me -- far.example"_s;
        QTest::newRow("host only") << u"ssh://far"_s << u"Tunnel=no -- far"_s;
        QTest::newRow("capital letters") << u"ssh://me@MyHost:22/x"_s << u"-p 22 -l me -- MyHost"_s;
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
            const QStringList command = commandFor(*host);
            QCOMPARE(command.first(3), (QStringList{u"true"_s, u"-F"_s, u"a file"_s}));
            const QString all = command.join(u' ');
            QVERIFY2(all.endsWith(end + u" zarvoctl pipe --no-start "_s + kId), qPrintable(all));
        }
    }

    void nothingIsForwarded()
    {
        qputenv("ZARVO_SSH", "true");
        const QStringList command = commandFor(*RemoteHost::fromLocation(u"ssh://far"_s));
        for (const QString &option : {u"-T"_s, u"-a"_s, u"-x"_s, u"ClearAllForwardings=yes"_s,
                                      u"PermitLocalCommand=no"_s, u"GSSAPIDelegateCredentials=no"_s}) {
            QVERIFY2(command.indexOf(option) > 0 && command.indexOf(option) < command.indexOf(u"--"_s),
                     qPrintable(option));
        }
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
    inline static const QString kId = QString(32, u'a');

    static QStringList commandFor(const RemoteHost &host)
    {
        QStringList command;
        Failure failure;
        return host.pipeCommand(kId, &command, &failure) ? command : QStringList();
    }
};

ZARVO_TEST(TestRemoteHost)
#include "tst_remotehost.moc"
