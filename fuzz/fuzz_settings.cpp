// SPDX-License-Identifier: MIT
#include "base/settings.h"
#include "fuzz/target.h"
#include "support/pathtemplate.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHostInfo>
#include <QSettings>

#include <array>
#include <utility>
#include <variant>

using namespace Qt::StringLiterals;

namespace {

/**
 * A settings file with this content, removed with the object. Each file has another name than the last ones, because
 * QSettings caches files that it has read.
 */
class SettingsFile final
{
public:
    explicit SettingsFile(const QByteArray &content)
        : name(QCoreApplication::applicationName())
    {
        static unsigned count = 0;
        QCoreApplication::setApplicationName(name + QString::number(++count % kNames));
        path = QSettings().fileName();
        FUZZ_CHECK(QDir().mkpath(QFileInfo(path).path()));
        QFile file(path);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    }
    ~SettingsFile()
    {
        QFile::remove(path);
        QCoreApplication::setApplicationName(name);
    }
    Q_DISABLE_COPY_MOVE(SettingsFile)

private:
    /** More files than QSettings caches. */
    static constexpr unsigned kNames = 1000;

    const QString name;
    QString path;
};

/** Expands a template character by character. */
QString expandedSlowly(const QString &text)
{
    const std::array<std::pair<QString, QString>, 4> values = {{
        {u"@HOME@"_s, QDir::homePath()},
        {u"@TEMP@"_s, QDir::tempPath()},
        {u"@USER@"_s, qEnvironmentVariable("USER")},
        {u"@HOST@"_s, QHostInfo::localHostName()},
    }};
    QString expanded;
    for (qsizetype at = 0; at < text.size();) {
        qsizetype taken = 0;
        for (const auto &[placeholder, value] : values) {
            if (QStringView(text).sliced(at).startsWith(placeholder)) {
                expanded += value;
                taken = placeholder.size();
            }
        }
        if (taken == 0) {
            expanded += text[at];
            taken = 1;
        }
        at += taken;
    }
    return expanded;
}

void checkTemplate(const QString &text)
{
    FUZZ_CHECK(expandPathTemplate(text) == expandedSlowly(text));
}

/** The value that a row must have for what stands in the file, as text. */
QString expectedText(const SettingRow &row, const QVariant &stored)
{
    if (std::holds_alternative<quint16 Settings::*>(row.member)) {
        return QString::number(stored.toUInt() % 65536);
    }
    if (std::holds_alternative<int Settings::*>(row.member)) {
        return QString::number(stored.toInt());
    }
    return row.isTemplate ? expandedSlowly(stored.toString()) : stored.toString();
}

void checkSettings()
{
    const Settings settings = Settings::read();
    FUZZ_CHECK(settings.displayEnd() == (settings.displayBase + settings.displayLimit) % 65536);
    const Settings again = Settings::read();
    const QSettings file;
    for (const SettingRow &row : settingTable()) {
        FUZZ_CHECK(row.text(settings) == row.text(again));
        FUZZ_CHECK(row.text(settings) == expectedText(row, file.value(row.key, row.defaultValue())));
    }
    // Without the table, because a mistake there would be in the expected text as well.
    if (file.contains(u"UserPath"_s)) {
        FUZZ_CHECK(settings.userPath == expandedSlowly(file.value(u"UserPath"_s).toString()));
    }
    if (!file.contains(u"SuspendTimeout"_s)) {
        FUZZ_CHECK(settings.suspendTimeout == -1);
    }
}

void fuzzSettings(const QByteArray &input)
{
    checkTemplate(QString::fromUtf8(input));
    const SettingsFile file(input);
    checkSettings();
}

} // namespace

ZARVO_FUZZ(fuzzSettings)
