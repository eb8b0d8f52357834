// SPDX-License-Identifier: MIT
#include "agent/applications/sessionenvironment.h"
#include "tests/testmain.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class SessionEnvironmentTest final : public QObject
{
    Q_OBJECT

private slots:
    void variablesOfAnotherSessionAreReplaced()
    {
        const QList<QByteArray> base = {"PATH=/bin",
                                        "DISPLAY=:0",
                                        "XAUTHORITY=/else",
                                        "DBUS_SESSION_BUS_ADDRESS=unix:path=/x",
                                        "SESSION_MANAGER=x",
                                        "WAYLAND_DISPLAY=wayland-0",
                                        "XDG_SESSION_ID=1",
                                        "XDG_SESSION_TYPE=wayland",
                                        "DISPLAY_OF_MINE=kept",
                                        "EMPTY=",
                                        "odd"};
        QCOMPARE(applicationEnvironment(base, 12, u"/a b/authority"_s),
                 (QList<QByteArray>{"PATH=/bin", "DISPLAY_OF_MINE=kept", "EMPTY=", "odd", "DISPLAY=:12",
                                    "XAUTHORITY=/a b/authority", "XDG_SESSION_TYPE=x11"}));
    }

    void currentEnvironmentIsOurs()
    {
        qputenv("ZARVO_TEST_VARIABLE", "a=b");
        QVERIFY(currentEnvironment().contains("ZARVO_TEST_VARIABLE=a=b"));
        qunsetenv("ZARVO_TEST_VARIABLE");
    }

    void maskIsReadFromTheSettings_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("mask");
        QTest::newRow("usual") << QByteArray("# UMASK 1\nUMASK\t\t022\n") << 022;
        QTest::newRow("strict") << QByteArray("UMASK 077") << 077;
        QTest::newRow("group") << QByteArray("OTHER x\n  UMASK 0002 \n") << 002;
        QTest::newRow("none") << QByteArray("#UMASK 077\n") << 022;
        QTest::newRow("no value") << QByteArray("UMASK\n") << 022;
        QTest::newRow("no number") << QByteArray("UMASK 9\n") << 022;
        QTest::newRow("too large") << QByteArray("UMASK 07777\n") << 022;
        QTest::newRow("longer name") << QByteArray("UMASKED 077\n") << 022;
    }

    void maskIsReadFromTheSettings()
    {
        QFETCH(QByteArray, text);
        QFETCH(int, mask);
        const QTemporaryDir directory;
        QFile file(directory.filePath(u"login"_s));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(text);
        file.close();
        QCOMPARE(int(userFileCreationMask(file.fileName())), mask);
    }

    void missingSettingsGiveTheDefaultMask() { QCOMPARE(int(userFileCreationMask(u"/nowhere/login"_s)), 022); }
};

ZARVO_TEST(SessionEnvironmentTest)
#include "tst_sessionenvironment.moc"
