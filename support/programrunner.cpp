// SPDX-License-Identifier: MIT
#include "support/programrunner.h"

#include <QProcess>

#include <csignal>

#include <sys/prctl.h>

using namespace Qt::StringLiterals;

namespace {

void killAndReap(QProcess *process)
{
    process->kill();
    process->waitForFinished(-1);
}

QString errorLine(QProcess *process, ReasonLine which)
{
    process->setReadChannel(QProcess::StandardError);
    if (which == ReasonLine::Last) {
        return QString::fromLocal8Bit(process->readAllStandardError().trimmed()).section(u'\n', -1);
    }
    QByteArray line = process->readLine();
    while (line.endsWith('\n') || line.endsWith('\r')) {
        line.chop(1);
    }
    return QString::fromLocal8Bit(line);
}

} // namespace

bool runProgram(const QString &program, const QStringList &arguments, const QString &workingDirectory, int timeoutMs,
                QString *error, ReasonLine reasonLine)
{
    const auto fail = [&](const QString &reason) {
        *error = u"Failed to run the program \"%1\": %2"_s.arg(program, reason);
        return false;
    };

    QProcess process;
    process.setWorkingDirectory(workingDirectory);
    // If we are killed, the program must not go on: the next server may be writing the same files.
    process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    process.start(program, arguments);
    if (!process.waitForFinished(timeoutMs)) {
        const QString reason = process.errorString();
        killAndReap(&process);
        return fail(reason);
    }
    if (process.exitStatus() == QProcess::CrashExit) {
        return fail(u"The process crashed"_s);
    }
    if (process.exitCode() != 0) {
        return fail(errorLine(&process, reasonLine));
    }
    return true;
}
