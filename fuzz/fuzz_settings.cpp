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

using namespace Qt::StringLiterals;

namespace {

/**
 * The settings file with this content, which is gone with the object. Its name is another one than the last time:
 * settings of a name that was read before may come from memory.
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
    /** More than are kept in memory. */
    static constexpr unsigned kNames = 1000;

    const QString name;
    QString path;
};

/** What a template means, one character after the other. */
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

bool isSame(const Settings &a, const Settings &b)
{
    return a.userPath == b.userPath && a.logLevel == b.logLevel && a.displayBase == b.displayBase &&
           a.displayLimit == b.displayLimit && a.sciUrl == b.sciUrl && a.suspendTimeout == b.suspendTimeout &&
           a.listenPort == b.listenPort && a.broadcastPort == b.broadcastPort &&
           a.broadcastAddress == b.broadcastAddress;
}

void checkSettings()
{
    const Settings settings = Settings::read();
    FUZZ_CHECK(isSame(settings, Settings::read()));
    FUZZ_CHECK(settings.displayEnd() == (settings.displayBase + settings.displayLimit) % 65536);
    const QSettings file;
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
