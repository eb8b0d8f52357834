// SPDX-License-Identifier: MIT
#include "client/reach/sshcommand.h"

#include "client/terminal/textwidth.h"

#include <QProcess>

using namespace Qt::StringLiterals;

QStringList guardedSsh(const QStringList &options, const QString &host, const QStringList &remoteCommand)
{
    const QStringList configured = QProcess::splitCommand(qEnvironmentVariable("ZARVO_SSH"));
    QStringList all = configured.isEmpty() ? QStringList{u"ssh"_s} : configured;
    all << u"-T"_s << u"-a"_s << u"-x"_s;
    for (const auto *option : {"ClearAllForwardings=yes", "PermitLocalCommand=no", "RemoteCommand=none",
                               "GSSAPIDelegateCredentials=no", "Tunnel=no"}) {
        all << u"-o"_s << QString::fromLatin1(option);
    }
    return all + options + QStringList{u"--"_s, host} + remoteCommand;
}

QString lastLine(const QString &text)
{
    return printable(text.trimmed().section(u'\n', -1));
}
