// SPDX-License-Identifier: MIT
#include "client/doctor/doctorcheck.h"

#include "support/filereader.h"

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxSmallFileBytes = 65536;

} // namespace

QString levelName(Finding::Level level)
{
    switch (level) {
    case Finding::Level::Ok:
        return u"OK"_s;
    case Finding::Level::Warn:
        return u"WARN"_s;
    case Finding::Level::Fail:
        return u"FAIL"_s;
    }
    return {};
}

Finding fine(const QString &text)
{
    return {Finding::Level::Ok, text, {}};
}

Finding warning(const QString &text, const QString &remedy)
{
    return {Finding::Level::Warn, text, remedy};
}

Finding failed(const QString &text, const QString &remedy)
{
    return {Finding::Level::Fail, text, remedy};
}

QString smallFileText(const QString &path)
{
    QByteArray text;
    QString ignored;
    return readFile(path, kMaxSmallFileBytes, &text, &ignored) ? QString::fromUtf8(text) : QString();
}

QList<DoctorCheck> doctorChecks()
{
    return {
        {"user path", checkUserPath},         {"settings", checkSettings},       {"agent", checkAgentSettings},
        {"confinement", checkConfinement},    {"certificate", checkCertificate}, {"server", checkServerProcess},
        {"programs", checkPrograms},          {"viewer", checkViewer},           {"displays", checkDisplays},
        {"X sockets", checkSocketDirectory},  {"ports", checkPortRange},         {"logout", checkLogout},
        {"broadcast", checkBroadcastAddress},
    };
}
