// SPDX-License-Identifier: MIT
#include "agent/applications/sessionenvironment.h"

#include "support/filereader.h"

#include <QFile>

#include <array>

#include <unistd.h>

namespace {

constexpr int kMaxLoginSettingsBytes = 256 * 1024;
constexpr mode_t kDefaultMask = 022;

/**
 * Variables of the session from which ours was started: its bus, session manager, compositor, seat and start-up
 * notification. A desktop that finds them joins that session.
 */
constexpr std::array kForeign = {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SESSION_BUS_PID", "SESSION_MANAGER",
                                 "WAYLAND_DISPLAY", "WAYLAND_SOCKET", "XDG_SESSION_ID", "XDG_SEAT", "XDG_VTNR",
                                 "DESKTOP_STARTUP_ID", "WINDOWID",
                                 // These are set again below.
                                 "DISPLAY", "XAUTHORITY", "XDG_SESSION_TYPE"};

bool isForeign(const QByteArray &variable)
{
    const QByteArray name = variable.first(qMax(variable.indexOf('='), qsizetype{0}));
    return std::any_of(kForeign.begin(), kForeign.end(), [&name](const char *other) { return name == other; });
}

} // namespace

QList<QByteArray> currentEnvironment()
{
    QList<QByteArray> variables;
    for (char **variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        variables.append(*variable);
    }
    return variables;
}

QList<QByteArray> applicationEnvironment(const QList<QByteArray> &base, quint16 display, const QString &authorityPath)
{
    QList<QByteArray> variables = base;
    variables.removeIf(isForeign);
    variables.append("DISPLAY=:" + QByteArray::number(display));
    variables.append("XAUTHORITY=" + QFile::encodeName(authorityPath));
    variables.append("XDG_SESSION_TYPE=x11");
    return variables;
}

mode_t userFileCreationMask(const QString &loginSettings)
{
    QByteArray text;
    QString error;
    if (!readFile(loginSettings, kMaxLoginSettingsBytes, &text, &error)) {
        return kDefaultMask;
    }
    for (const QByteArray &line : text.split('\n')) {
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.size() < 2 || words[0] != "UMASK") {
            continue;
        }
        bool isOctal = false;
        const uint mask = words[1].toUInt(&isOctal, 8);
        return isOctal && mask <= 0777 ? static_cast<mode_t>(mask) : kDefaultMask;
    }
    return kDefaultMask;
}
