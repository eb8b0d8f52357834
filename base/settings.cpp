// SPDX-License-Identifier: MIT
#include "base/settings.h"

#include "support/pathtemplate.h"

#include <QDir>
#include <QHostInfo>
#include <QSettings>

using namespace Qt::StringLiterals;

namespace {

QVariant value(QLatin1StringView key, const QVariant &fallback)
{
    return QSettings().value(QString(key), fallback);
}

QString text(QLatin1StringView key, const QString &fallback)
{
    return value(key, fallback).toString();
}

quint16 number16(QLatin1StringView key, quint16 fallback)
{
    return static_cast<quint16>(value(key, fallback).toUInt());
}

QString defaultUserPath()
{
    return QDir(QDir::homePath()).filePath(u".zarvo_server/@HOST@"_s);
}

QString defaultSciUrl()
{
    return u"ssh://%1@%2:22/zarvo_sci"_s.arg(qEnvironmentVariable("USER"), QHostInfo::localHostName());
}

} // namespace

Settings Settings::read()
{
    Settings settings{};
    settings.userPath = expandPathTemplate(text("UserPath"_L1, defaultUserPath()));
    settings.logLevel = text("LogLevel"_L1, QString());
    settings.displayBase = number16("DisplayBase"_L1, 100);
    settings.displayLimit = number16("DisplayLimit"_L1, 100);
    settings.sciUrl = expandPathTemplate(text("SciUrl"_L1, defaultSciUrl()));
    settings.suspendTimeout = value("SuspendTimeout"_L1, -1).toInt();
    settings.listenPort = number16("ListenPort"_L1, 0);
    settings.broadcastPort = number16("BroadcastPort"_L1, 0);
    settings.broadcastAddress = text("BroadcastAddress"_L1, u"255.255.255.255"_s);
    return settings;
}
