// SPDX-License-Identifier: MIT
#include "tests/client/doctorinput.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestDoctorSettings : public QObject
{
    Q_OBJECT

private slots:
    void missingFileMeansDefaults()
    {
        QCOMPARE(texts(checkSettings(surroundings.input())), QStringList{u"OK All settings have their defaults"_s});
    }

    void validSettingsAreFine()
    {
        DoctorInput input = surroundings.input();
        input.settings.displayBase = 200;
        input.settings.suspendTimeout = 90;
        input.settings.logLevel = u"Debug1"_s;
        input.settingsFile.values = {
            {u"DisplayBase"_s, u"200"_s}, {u"SuspendTimeout"_s, u"90"_s}, {u"LogLevel"_s, u"Debug1"_s}};
        QCOMPARE(texts(checkSettings(input)), QStringList{u"OK \"%1\" is valid"_s.arg(input.settingsFile.path)});
    }

    void valueThatBecomesAnotherIsAWarning_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("value");
        QTest::newRow("too large") << u"ListenPort"_s << u"70000"_s << 4464;
        QTest::newRow("a placeholder") << u"DisplayBase"_s << u"%2%3"_s << 0;
        QTest::newRow("no number") << u"DisplayBase"_s << u"many"_s << 0;
        QTest::newRow("negative") << u"BroadcastPort"_s << u"-1"_s << 0;
        QTest::newRow("timeout out of range") << u"SuspendTimeout"_s << u"99999999999"_s << 7;
    }
    void valueThatBecomesAnotherIsAWarning()
    {
        QFETCH(QString, key);
        QFETCH(QString, text);
        QFETCH(int, value);
        DoctorInput input = surroundings.input();
        const auto number = static_cast<quint16>(value);
        input.settings.listenPort = number;
        input.settings.displayBase = number;
        input.settings.broadcastPort = number;
        input.settings.displayLimit = 100;
        input.settings.suspendTimeout = value;
        input.settingsFile.values = {{key, text}};
        const QList<Finding> findings = checkSettings(input);
        QCOMPARE(texts(findings),
                 QStringList{u"WARN %1 is \"%2\", which becomes %3"_s.arg(key, text, QString::number(value))});
        QVERIFY(haveRemedies(findings));
    }

    void brokenFileIsAWarning()
    {
        DoctorInput input = surroundings.input();
        input.settingsFile.status = QSettings::FormatError;
        QCOMPARE(texts(checkSettings(input)),
                 QStringList{u"WARN \"%1\" is broken: invalid lines are ignored"_s.arg(input.settingsFile.path)});
        QVERIFY(haveRemedies(checkSettings(input)));
    }

    void unreadableFileIsAFailure()
    {
        DoctorInput input = surroundings.input();
        input.settingsFile.path = surroundings.path("bin"); // a directory
        QCOMPARE(texts(checkSettings(input)),
                 QStringList{
                     u"FAIL \"%1\" cannot be read: all settings have their defaults"_s.arg(input.settingsFile.path)});
        QVERIFY(haveRemedies(checkSettings(input)));
    }

    void unknownKeyUnknownLevelAndZeroTimeoutAreWarnings()
    {
        DoctorInput input = surroundings.input();
        input.settings.logLevel = u"Loud"_s;
        input.settings.suspendTimeout = 0;
        input.settingsFile.values = {
            {u"Colour"_s, u"red"_s}, {u"SuspendTimeout"_s, u"0"_s}, {u"LogLevel"_s, u"Loud"_s}};
        const QList<Finding> findings = checkSettings(input);
        QCOMPARE(texts(findings),
                 (QStringList{u"WARN There is no setting Colour; it is ignored"_s,
                              u"WARN SuspendTimeout is 0: sessions end as soon as no viewer is connected"_s,
                              u"WARN LogLevel is \"Loud\", which becomes Info"_s}));
        QVERIFY(haveRemedies(findings));
    }

    void displayRangeIsChecked_data()
    {
        QTest::addColumn<int>("base");
        QTest::addColumn<int>("limit");
        QTest::addColumn<QString>("found");
        QTest::newRow("none") << 100 << 0 << u"FAIL DisplayLimit is 0: no session can have a display"_s;
        QTest::newRow("last one with a port") << 24000 << 536 << u"OK All settings have their defaults"_s;
        QTest::newRow("one without a port")
            << 24000 << 537 << u"WARN Displays go up to 24536, but only displays up to 24535 have a port"_s;
    }
    void displayRangeIsChecked()
    {
        QFETCH(int, base);
        QFETCH(int, limit);
        DoctorInput input = surroundings.input();
        input.settings.displayBase = static_cast<quint16>(base);
        input.settings.displayLimit = static_cast<quint16>(limit);
        QTEST(texts(checkSettings(input)).join(u'\n'), "found");
    }

    void broadcastAddressIsChecked()
    {
        DoctorInput input = surroundings.input();
        QCOMPARE(texts(checkBroadcastAddress(input)),
                 QStringList{u"OK Off: this server does not look for other servers"_s});
        input.settings.broadcastPort = 4000;
        QCOMPARE(texts(checkBroadcastAddress(input)),
                 QStringList{u"OK The server looks for other servers at 255.255.255.255, port 4000"_s});
        input.settings.broadcastPort = 0;
        for (const QString &address : {u"nowhere"_s, u""_s, u"10.0.0.300"_s}) {
            input.settings.broadcastAddress = address;
            const QList<Finding> findings = checkBroadcastAddress(input);
            QCOMPARE(texts(findings),
                     QStringList{
                         u"FAIL BroadcastAddress \"%1\" is not an address: the server does not start"_s.arg(address)});
            QVERIFY(haveRemedies(findings));
        }
    }

private:
    DoctorSurroundings surroundings;
};

ZARVO_TEST(TestDoctorSettings)
#include "tst_doctorsettings.moc"
