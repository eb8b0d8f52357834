// SPDX-License-Identifier: MIT
#include "base/agentsettings.h"
#include "contract/settingkeys.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class AgentSettingsTest final : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> directory;
    QStringList problems;

    /** Reads the settings from a file with these lines. */
    AgentSettings read(const QByteArray &lines)
    {
        putFile(agentSettingsPath(), "[General]\n" + lines + '\n');
        problems.clear();
        return AgentSettings::read(&problems);
    }

private slots:
    void init()
    {
        directory = std::make_unique<QTemporaryDir>();
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, directory->filePath(u"user"_s));
        QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, directory->filePath(u"system"_s));
        QVERIFY(QDir().mkpath(QFileInfo(agentSettingsPath()).path()));
        problems.clear();
    }

    void fileLiesBesideTheServers()
    {
        QCOMPARE(QFileInfo(agentSettingsPath()).fileName(), u"Zarvo Agent.conf"_s);
        QCOMPARE(QFileInfo(agentSettingsPath()).dir().dirName(), u"Halvorn Media"_s);
    }

    void missingFileMeansDefaults()
    {
        const AgentSettings settings = AgentSettings::read(&problems);
        QVERIFY(!settings.allowPlainFromNetwork);
        QVERIFY(!settings.allowLocalUsers);
        QCOMPARE(settings.listenAddress, u"Any"_s);
        QCOMPARE(settings.address(), std::optional(QHostAddress(QHostAddress::Any)));
        QVERIFY(settings.passwordMinutes == 10min);
        QVERIFY(problems.isEmpty());
        QVERIFY(!QFile::exists(agentSettingsPath())); // reading writes nothing
    }

    void tableHasTheDefaults()
    {
        QByteArray lines;
        for (const AgentSettingRow &row : agentSettingTable()) {
            lines += QByteArray(row.key.data(), row.key.size()) + '=' +
                     QByteArray(row.defaultText.data(), row.defaultText.size()) + '\n';
        }
        QCOMPARE(agentSettingTable().size(), size_t{4});
        const AgentSettings settings = read(lines);
        QVERIFY(problems.isEmpty());
        const AgentSettings defaults;
        QCOMPARE(settings.allowPlainFromNetwork, defaults.allowPlainFromNetwork);
        QCOMPARE(settings.allowLocalUsers, defaults.allowLocalUsers);
        QCOMPARE(settings.listenAddress, defaults.listenAddress);
        QVERIFY(settings.passwordMinutes == defaults.passwordMinutes);
    }

    void truthIsRead_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("value");
        QTest::newRow("true") << QByteArray("true") << true;
        QTest::newRow("True") << QByteArray("True") << true;
        QTest::newRow("1") << QByteArray("1") << true;
        QTest::newRow("blanks") << QByteArray(" true ") << true;
        QTest::newRow("false") << QByteArray("false") << false;
        QTest::newRow("FALSE") << QByteArray("FALSE") << false;
        QTest::newRow("0") << QByteArray("0") << false;
    }

    void truthIsRead()
    {
        QFETCH(QByteArray, text);
        QFETCH(bool, value);
        QCOMPARE(read("AllowPlainFromNetwork=" + text).allowPlainFromNetwork, value);
        QVERIFY(problems.isEmpty());
        QCOMPARE(read("AllowLocalUsers=" + text).allowLocalUsers, value);
        QVERIFY(problems.isEmpty());
    }

    // Qt would take each of them for true.
    void otherTextIsNotTrue_data()
    {
        QTest::addColumn<QByteArray>("text");
        for (const char *const text : {"no", "off", "yes", "on", "2", "-1", "truee", "", "true!", "true, true",
                                       "@Invalid()", "@ByteArray(x)", "\"\\0\""}) {
            QTest::newRow(text) << QByteArray(text);
        }
    }

    void otherTextIsNotTrue()
    {
        QFETCH(QByteArray, text);
        QVERIFY(!read("AllowPlainFromNetwork=" + text).allowPlainFromNetwork);
        QCOMPARE(problems.size(), 1);
        QVERIFY(problems.first().startsWith(u"The setting AllowPlainFromNetwork is \""_s));
        QVERIFY(problems.first().endsWith(u"\": it is neither true nor false, so false is used"_s));
        QVERIFY(!read("AllowLocalUsers=" + text).allowLocalUsers);
        QCOMPARE(problems.size(), 1);
        QVERIFY(problems.first().startsWith(u"The setting AllowLocalUsers is \""_s));
    }

    void addressIsRead_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QHostAddress>("address"); // null: none
        QTest::newRow("Any") << QByteArray("Any") << u"Any"_s << QHostAddress(QHostAddress::Any);
        QTest::newRow("any") << QByteArray("any") << u"Any"_s << QHostAddress(QHostAddress::Any);
        QTest::newRow("None") << QByteArray("None") << u"None"_s << QHostAddress();
        QTest::newRow("NONE") << QByteArray("NONE") << u"None"_s << QHostAddress();
        QTest::newRow("IPv4") << QByteArray("192.0.2.1") << u"192.0.2.1"_s << QHostAddress(u"192.0.2.1"_s);
        QTest::newRow("IPv6") << QByteArray("2001:db8::1") << u"2001:db8::1"_s << QHostAddress(u"2001:db8::1"_s);
        QTest::newRow("loopback") << QByteArray("::1") << u"::1"_s << QHostAddress(QHostAddress::LocalHostIPv6);
    }

    void addressIsRead()
    {
        QFETCH(QByteArray, text);
        QFETCH(QString, value);
        QFETCH(QHostAddress, address);
        const AgentSettings settings = read("ListenAddress=" + text);
        QVERIFY(problems.isEmpty());
        QCOMPARE(settings.listenAddress, value);
        QCOMPARE(settings.address().value_or(QHostAddress()), address);
        QCOMPARE(settings.address().has_value(), !address.isNull());
    }

    void otherTextIsLoopback_data()
    {
        QTest::addColumn<QByteArray>("text");
        for (const char *const text : {"", "localhost", "0", "1", "eth0", "192.0.2", "192.0.2.256", "192.0.2.1/24",
                                       "192.0.2.1:41100", "No", "::1::", "192.0.2.1, 192.0.2.2", "@Invalid()"}) {
            QTest::newRow(text) << QByteArray(text);
        }
    }

    void otherTextIsLoopback()
    {
        QFETCH(QByteArray, text);
        const AgentSettings settings = read("ListenAddress=" + text);
        QCOMPARE(settings.address(), std::optional(QHostAddress(QHostAddress::LocalHost)));
        QCOMPARE(problems.size(), 1);
        QVERIFY(problems.first().startsWith(u"The setting ListenAddress is \""_s));
    }

    void minutesAreRead_data()
    {
        QTest::addColumn<int>("minutes");
        for (const int minutes : {1, 2, 10, 60, 7 * 24 * 60}) {
            QTest::addRow("%d", minutes) << minutes;
        }
    }

    void minutesAreRead()
    {
        QFETCH(int, minutes);
        QVERIFY(read("PasswordMinutes=" + QByteArray::number(minutes)).passwordMinutes ==
                std::chrono::minutes(minutes));
        QVERIFY(problems.isEmpty());
    }

    void otherMinutesAreTen_data()
    {
        QTest::addColumn<QByteArray>("text");
        for (const char *const text : {"", "0", "-1", "10081", "2147483648", "99999999999999999999", "ten", "1.5",
                                       "0x10", "10 minutes", "1,2", "@Invalid()"}) {
            QTest::newRow(text) << QByteArray(text);
        }
    }

    void otherMinutesAreTen()
    {
        QFETCH(QByteArray, text);
        QVERIFY(read("PasswordMinutes=" + text).passwordMinutes == 10min);
        QCOMPARE(problems.size(), 1);
        QVERIFY(problems.first().startsWith(u"The setting PasswordMinutes is \""_s));
        QVERIFY(problems.first().endsWith(u"it is no number from 1 to 10080, so 10 is used"_s));
    }

    void eachProblemIsReported()
    {
        const AgentSettings settings =
            read("AllowPlainFromNetwork=x\nListenAddress=%1\nAllowLocalUsers=%2\nPasswordMinutes=%3");
        QCOMPARE(problems.size(), 4);
        QVERIFY(problems[1].startsWith(u"The setting ListenAddress is \"%1\": "_s));
        QVERIFY(!settings.allowPlainFromNetwork && !settings.allowLocalUsers);
    }
};

ZARVO_TEST(AgentSettingsTest)
#include "tst_agentsettings.moc"
