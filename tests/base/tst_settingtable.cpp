// SPDX-License-Identifier: MIT
#include "base/agentsettings.h"
#include "base/logging.h"
#include "base/settings.h"
#include "contract/settingkeys.h"
#include "support/pathtemplate.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QMap>
#include <QRegularExpression>
#include <QSet>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

/** What documents and the fuzz target say about settings, held against the table. */
class TestSettingTable : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyRowHasAKeyOfItsOwn();
    void manualDescribesExactlyTheSettingsOfTheTable();
    void manualTellsTheDefaults();
    void manualTellsWherePlaceholdersAreFilledIn();
    void dictionaryOfTheFuzzTargetHasAllKeys();
    void agentsManualDescribesExactlyTheSettingsOfItsTable();

private:
    QString manual;
    QMap<QString, QString> documentedDefaults; ///< by key
};

namespace {

QStringList sorted(QStringList texts)
{
    texts.sort();
    return texts;
}

QStringList keysOf(bool (*isWanted)(const SettingRow &row))
{
    QStringList keys;
    for (const SettingRow &row : settingTable()) {
        if (isWanted(row)) {
            keys.append(row.key);
        }
    }
    return sorted(keys);
}

QStringList allKeys()
{
    return keysOf([](const SettingRow &) { return true; });
}

/** What a manual page says of its settings. A setting that is described twice has both defaults. */
QMap<QString, QString> defaultsIn(const QString &manual)
{
    static const QRegularExpression entry(u"^\\.BR (\\w+) \" \\(default: (.*)\\)\"$"_s,
                                          QRegularExpression::MultilineOption);
    QMap<QString, QString> defaults;
    for (const QRegularExpressionMatch &match : entry.globalMatch(manual)) {
        defaults[match.captured(1)] += match.captured(2);
    }
    return defaults;
}

QString manualPage(const char *name)
{
    const QString path = QStringLiteral(ZARVO_SOURCES "/docs/man/") + QLatin1StringView(name);
    return QString::fromUtf8(contentOf(path)).replace(u"\\-"_s, u"-"_s);
}

} // namespace

void TestSettingTable::initTestCase()
{
    manual = manualPage("zarvo_server.conf.5");
    documentedDefaults = defaultsIn(manual);
}

void TestSettingTable::everyRowHasAKeyOfItsOwn()
{
    const QStringList keys = allKeys();
    QCOMPARE(QSet<QString>(keys.begin(), keys.end()).size(), keys.size());
}

void TestSettingTable::manualDescribesExactlyTheSettingsOfTheTable()
{
    QCOMPARE(documentedDefaults.keys(), allKeys());
}

void TestSettingTable::manualTellsTheDefaults()
{
    const QTemporaryDir empty;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, empty.path());
    QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, empty.path());
    const Settings defaults = Settings::read();
    for (const SettingRow &row : settingTable()) {
        const QString documented = documentedDefaults.value(row.key);
        if (row.key == SettingKey::kLogLevel) {
            // Without a name the level is that of an unknown one, which the page names.
            QCOMPARE(logLevelFromName(documented), Logging::levelFromName(row.text(defaults)));
        } else {
            QCOMPARE(row.isTemplate ? expandPathTemplate(documented) : documented, row.text(defaults));
        }
    }
}

void TestSettingTable::manualTellsWherePlaceholdersAreFilledIn()
{
    static const QRegularExpression sentence(u"Placeholders are replaced in the values of\n(.*?):\n"_s,
                                             QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression name(u"^\\.BR? (\\w+)"_s, QRegularExpression::MultilineOption);
    QStringList documented;
    for (const QRegularExpressionMatch &match : name.globalMatch(sentence.match(manual).captured(1))) {
        documented.append(match.captured(1));
    }
    QCOMPARE(sorted(documented), keysOf([](const SettingRow &row) { return row.isTemplate; }));
}

void TestSettingTable::dictionaryOfTheFuzzTargetHasAllKeys()
{
    static const QRegularExpression entry(u"^\"(\\w+)=\"$"_s, QRegularExpression::MultilineOption);
    const QString dictionary = QString::fromUtf8(contentOf(QStringLiteral(ZARVO_SOURCES "/fuzz/dict/settings.dict")));
    QStringList keys;
    for (const QRegularExpressionMatch &match : entry.globalMatch(dictionary)) {
        keys.append(match.captured(1));
    }
    QCOMPARE(sorted(keys), allKeys());
}

void TestSettingTable::agentsManualDescribesExactlyTheSettingsOfItsTable()
{
    QMap<QString, QString> table;
    for (const AgentSettingRow &row : agentSettingTable()) {
        table[row.key] += row.defaultText;
    }
    QCOMPARE(defaultsIn(manualPage("zarvo_agent.conf.5")), table);
}

ZARVO_TEST(TestSettingTable)

#include "tst_settingtable.moc"
