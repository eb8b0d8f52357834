// SPDX-License-Identifier: MIT
#include "base/settings.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHostInfo>
#include <QSet>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <variant>

using namespace Qt::StringLiterals;

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();
    void missingFileMeansDefaults();
    void fileGivesTheValues();
    void portAndDisplayNumbersAreCutTo16Bits_data();
    void portAndDisplayNumbersAreCutTo16Bits();
    void displayRangeEndWrapsAround_data();
    void displayRangeEndWrapsAround();
    void suspendTimeoutIsSigned_data();
    void suspendTimeoutIsSigned();
    void placeholdersAreExpandedInPathAndUrlAlone();
    void placeholdersInTheUsersNameAreExpandedInTheDefaultUrl();
    void unsetUserIsEmptyInTheDefaultUrl();
    void readingWritesNothing();
    void everyMemberHasARowOfItsOwn();

private:
    [[nodiscard]] QString settingsFile() const;
    void putSettings(const QByteArray &lines) const { putFile(settingsFile(), "[General]\n" + lines); }

    std::unique_ptr<QTemporaryDir> dir; ///< home directory and both places of settings
    std::unique_ptr<EnvironmentVariable> home;
    std::unique_ptr<EnvironmentVariable> user;
    QString previousApplication;
    QString previousOrganization;
};

void TestSettings::initTestCase()
{
    previousApplication = QCoreApplication::applicationName();
    previousOrganization = QCoreApplication::organizationName();
    QCoreApplication::setApplicationName(u"Zarvo Server"_s);
    QCoreApplication::setOrganizationName(u"Halvorn Media"_s);
}

void TestSettings::cleanupTestCase()
{
    QCoreApplication::setApplicationName(previousApplication);
    QCoreApplication::setOrganizationName(previousOrganization);
}

void TestSettings::init()
{
    dir = std::make_unique<QTemporaryDir>();
    home = std::make_unique<EnvironmentVariable>("HOME", QFile::encodeName(dir->path()));
    user = std::make_unique<EnvironmentVariable>("USER", "anna");
    // Qt reads XDG_CONFIG_HOME once per process; this is the same, and works for every test anew.
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir->filePath(u".config"_s));
    QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, dir->filePath(u"etc"_s));
    QVERIFY(QDir(dir->path()).mkpath(u".config/Halvorn Media"_s));
}

void TestSettings::cleanup()
{
    user.reset();
    home.reset();
    dir.reset();
}

QString TestSettings::settingsFile() const
{
    return dir->filePath(u".config/Halvorn Media/Zarvo Server.conf"_s);
}

void TestSettings::missingFileMeansDefaults()
{
    const Settings settings = Settings::read();
    QCOMPARE(settings.userPath, QString(dir->path() + u"/.zarvo_server/"_s + QHostInfo::localHostName()));
    QCOMPARE(settings.logLevel, QString());
    QCOMPARE(settings.displayBase, 100);
    QCOMPARE(settings.displayLimit, 100);
    QCOMPARE(settings.displayEnd(), 200);
    QCOMPARE(settings.sciUrl, QString(u"ssh://anna@"_s + QHostInfo::localHostName() + u":22/zarvo_sci"_s));
    QCOMPARE(settings.suspendTimeout, -1);
    QCOMPARE(settings.listenPort, 0);
    QCOMPARE(settings.broadcastPort, 0);
    QCOMPARE(settings.broadcastAddress, u"255.255.255.255"_s);
}

void TestSettings::fileGivesTheValues()
{
    putSettings("UserPath=/var/lib/zarvo\nLogLevel=Debug2\nDisplayBase=7\nDisplayLimit=8\n"
                "SciUrl=\"ssh://example.org/x\"\nSuspendTimeout=90\nListenPort=4000\nBroadcastPort=4001\n"
                "BroadcastAddress=10.0.0.255\n");
    const Settings settings = Settings::read();
    QCOMPARE(settings.userPath, u"/var/lib/zarvo"_s);
    QCOMPARE(settings.logLevel, u"Debug2"_s);
    QCOMPARE(settings.displayBase, 7);
    QCOMPARE(settings.displayLimit, 8);
    QCOMPARE(settings.sciUrl, u"ssh://example.org/x"_s);
    QCOMPARE(settings.suspendTimeout, 90);
    QCOMPARE(settings.listenPort, 4000);
    QCOMPARE(settings.broadcastPort, 4001);
    QCOMPARE(settings.broadcastAddress, u"10.0.0.255"_s);
}

void TestSettings::portAndDisplayNumbersAreCutTo16Bits_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<int>("value");
    QTest::newRow("0") << "0"_ba << 0;
    QTest::newRow("1") << "1"_ba << 1;
    QTest::newRow("32767") << "32767"_ba << 32767;
    QTest::newRow("32768") << "32768"_ba << 32768;
    QTest::newRow("65534") << "65534"_ba << 65534;
    QTest::newRow("65535") << "65535"_ba << 65535;
    QTest::newRow("65536") << "65536"_ba << 0;
    QTest::newRow("65537") << "65537"_ba << 1;
    QTest::newRow("70000") << "70000"_ba << 4464;
    QTest::newRow("largest 32-bit number") << "4294967295"_ba << 65535;
}

void TestSettings::portAndDisplayNumbersAreCutTo16Bits()
{
    QFETCH(const QByteArray, stored);
    QFETCH(const int, value);
    QByteArray lines;
    for (const char *key : {"DisplayBase", "DisplayLimit", "ListenPort", "BroadcastPort"}) {
        lines += key + QByteArray("=") + stored + '\n';
    }
    putSettings(lines);
    const Settings settings = Settings::read();
    QCOMPARE(settings.displayBase, value);
    QCOMPARE(settings.displayLimit, value);
    QCOMPARE(settings.listenPort, value);
    QCOMPARE(settings.broadcastPort, value);
}

void TestSettings::displayRangeEndWrapsAround_data()
{
    QTest::addColumn<int>("base");
    QTest::addColumn<int>("limit");
    QTest::addColumn<int>("end");
    QTest::newRow("defaults") << 100 << 100 << 200;
    QTest::newRow("last number") << 65500 << 35 << 65535;
    QTest::newRow("one more") << 65500 << 36 << 0;
    QTest::newRow("two more") << 65500 << 37 << 1;
    QTest::newRow("far more") << 65500 << 100 << 64;
    QTest::newRow("both largest") << 65535 << 65535 << 65534;
    QTest::newRow("empty range") << 5 << 0 << 5;
}

void TestSettings::displayRangeEndWrapsAround()
{
    QFETCH(const int, base);
    QFETCH(const int, limit);
    QFETCH(const int, end);
    putSettings("DisplayBase=" + QByteArray::number(base) + "\nDisplayLimit=" + QByteArray::number(limit) + '\n');
    QCOMPARE(Settings::read().displayEnd(), end);
}

void TestSettings::suspendTimeoutIsSigned_data()
{
    QTest::addColumn<int>("minutes");
    for (const int minutes : {-2147483647 - 1, -2, -1, 0, 1, 70000, 2147483647}) {
        QTest::addRow("%d", minutes) << minutes;
    }
}

void TestSettings::suspendTimeoutIsSigned()
{
    QFETCH(const int, minutes);
    putSettings("SuspendTimeout=" + QByteArray::number(minutes) + '\n');
    QCOMPARE(Settings::read().suspendTimeout, minutes);
}

void TestSettings::placeholdersAreExpandedInPathAndUrlAlone()
{
    putSettings("UserPath=@HOME@/x/@USER@\nSciUrl=\"ssh://@USER@.@HOST@\"\nLogLevel=@USER@\n"
                "BroadcastAddress=@HOST@\n");
    const Settings settings = Settings::read();
    QCOMPARE(settings.userPath, QString(dir->path() + u"/x/anna"_s));
    QCOMPARE(settings.sciUrl, QString(u"ssh://anna."_s + QHostInfo::localHostName()));
    QCOMPARE(settings.logLevel, u"@USER@"_s);
    QCOMPARE(settings.broadcastAddress, u"@HOST@"_s);
}

void TestSettings::placeholdersInTheUsersNameAreExpandedInTheDefaultUrl()
{
    const EnvironmentVariable odd("USER", "@HOME@");
    QCOMPARE(Settings::read().sciUrl,
             QString(u"ssh://"_s + dir->path() + u'@' + QHostInfo::localHostName() + u":22/zarvo_sci"_s));
}

void TestSettings::unsetUserIsEmptyInTheDefaultUrl()
{
    const EnvironmentVariable unset("USER");
    QCOMPARE(Settings::read().sciUrl, QString(u"ssh://@"_s + QHostInfo::localHostName() + u":22/zarvo_sci"_s));
}

void TestSettings::readingWritesNothing()
{
    [[maybe_unused]] const Settings settings = Settings::read();
    QVERIFY(!QFile::exists(settingsFile()));
    QVERIFY(!QFile::exists(dir->filePath(u".zarvo_server"_s)));
}

void TestSettings::everyMemberHasARowOfItsOwn()
{
    // This stops compiling when Settings gets another member, which then needs a row.
    Settings settings{};
    auto &[a, b, c, d, e, f, g, h, i] = settings;
    const QSet<const void *> members = {&a, &b, &c, &d, &e, &f, &g, &h, &i};
    QSet<const void *> reached;
    for (const SettingRow &row : settingTable()) {
        reached.insert(
            std::visit([&settings](auto member) -> const void * { return &(settings.*member); }, row.member));
    }
    QCOMPARE(reached, members);
    QCOMPARE(settingTable().size(), size_t(members.size()));
}

ZARVO_TEST(TestSettings)

#include "tst_settings.moc"
