// SPDX-License-Identifier: MIT
#include "client/reach/childrun.h"

#include "client/terminal/eventwait.h"
#include "support/processhardening.h"

#include <QProcess>

#include <csignal>

#include <sys/prctl.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kMaxOutputBytes = 1024 * 1024;

/** A killed process ends at once, unless it hangs in the kernel. */
constexpr int kKillMs = 2000;

void keep(QByteArray *kept, const QByteArray &more)
{
    kept->append(more.first(std::min(more.size(), kMaxOutputBytes - kept->size())));
}

/** Runs in the child, between fork and exec. */
void prepareChild()
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM); // an ssh must not go on if we are killed
    restoreCoreFiles();
}

} // namespace

bool ChildRun::run(const QStringList &command, std::chrono::milliseconds timeout)
{
    QProcess process;
    EventWait wait([&process] { return process.state() == QProcess::NotRunning; });
    QObject::connect(&process, &QProcess::stateChanged, wait.context(), [&wait] { wait.wake(); });
    QObject::connect(&process, &QProcess::readyReadStandardOutput, wait.context(),
                     [this, &process] { keep(&standardOutput, process.readAllStandardOutput()); });
    QObject::connect(&process, &QProcess::readyReadStandardError, wait.context(),
                     [this, &process] { keep(&standardError, process.readAllStandardError()); });
    if (standardInput.isNull()) {
        process.setStandardInputFile(QProcess::nullDevice());
    }
    process.setChildProcessModifier(prepareChild);
    process.start(command.first(), command.sliced(1));
    if (!standardInput.isNull()) {
        process.write(standardInput);
        process.closeWriteChannel(); // once everything is written
    }
    if (!wait.run(timeout)) {
        late = true;
        reason = u"\"%1\" did not end in time"_s.arg(command.first());
        process.kill();
        process.waitForFinished(kKillMs);
        return false;
    }
    keep(&standardOutput, process.readAllStandardOutput());
    keep(&standardError, process.readAllStandardError());
    if (process.error() == QProcess::FailedToStart) {
        reason = u"\"%1\" does not start"_s.arg(command.first());
        return false;
    }
    if (process.exitStatus() == QProcess::CrashExit) {
        reason = u"\"%1\" crashed"_s.arg(command.first());
        return false;
    }
    code = process.exitCode();
    return true;
}
