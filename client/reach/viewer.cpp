// SPDX-License-Identifier: MIT
#include "client/reach/viewer.h"

#include "client/reach/vncpasswordfile.h"
#include "client/terminal/eventwait.h"
#include "support/processhardening.h"

#include <QProcess>
#include <QStandardPaths>

#include <csignal>

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

QStringList configuredCommand()
{
    return QProcess::splitCommand(qEnvironmentVariable("ZARVO_VIEWER"));
}

/** The known viewers, each with the options that it needs; the first one found is used. */
QList<QStringList> knownCommands()
{
    return {{u"xtigervncviewer"_s, u"-SecurityTypes"_s, u"VncAuth"_s}, {u"vncviewer"_s}};
}

bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

bool isFound(const QStringList &command)
{
    return !QStandardPaths::findExecutable(command.first()).isEmpty();
}

/** Runs in the child, between fork and exec. */
void prepareChild(int passwordDescriptor)
{
    ::fcntl(passwordDescriptor, F_SETFD, 0);
    // Our standard output is for data, which the viewer's messages would spoil.
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    restoreCoreFiles();
}

} // namespace

bool Viewer::find(Failure *failure)
{
    if (const QStringList configured = configuredCommand(); !configured.isEmpty()) {
        if (!isFound(configured)) {
            return fail(
                failure, ExitCode::NoViewer,
                u"ZARVO_VIEWER names \"%1\", which is not a program on the search path."_s.arg(configured.first()));
        }
        command = configured;
        return true;
    }
    for (const QStringList &known : knownCommands()) {
        if (isFound(known)) {
            command = known;
            break;
        }
    }
    if (command.isEmpty()) {
        return fail(failure, ExitCode::NoViewer,
                    u"There is no VNC viewer on the search path. Install one (Debian: tigervnc-viewer), name one in "
                    "ZARVO_VIEWER, or use \"zarvoctl connect --print\"."_s);
    }
    if (!hasDisplay()) {
        return fail(failure, ExitCode::NoViewer,
                    u"The viewer has no display (DISPLAY is not set). "
                    "\"zarvoctl connect --print\" prints what a viewer on another host needs."_s);
    }
    return true;
}

bool Viewer::run(quint16 port, const QString &password, Failure *failure)
{
    VncPasswordFile passwordFile;
    QString error;
    if (!passwordFile.create(password, &error)) {
        return fail(failure, ExitCode::NoViewer, error + u'.');
    }
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    process.setChildProcessModifier([descriptor = passwordFile.descriptor()] { prepareChild(descriptor); });

    bool ended = false;
    EventWait wait([&ended] { return ended; });
    const auto finish = [&wait, &ended] {
        ended = true;
        wait.wake();
    };
    QObject::connect(&process, &QProcess::finished, wait.context(), finish);
    QObject::connect(&process, &QProcess::errorOccurred, wait.context(), [&finish](QProcess::ProcessError problem) {
        if (problem == QProcess::FailedToStart) {
            finish();
        }
    });
    process.start(command.first(),
                  command.sliced(1) + QStringList{u"-passwd"_s, passwordFile.path(), u"127.0.0.1::%1"_s.arg(port)});
    // No deadline, because the user may look at the session for days.
    if (!wait.run(kNoDeadline)) {
        return fail(failure, ExitCode::NoViewer, {}); // interrupted; the destructor of the process ends the viewer
    }
    if (process.error() == QProcess::FailedToStart) {
        return fail(failure, ExitCode::NoViewer,
                    u"The viewer \"%1\" does not start: %2."_s.arg(command.first(), process.errorString()));
    }
    if (process.exitStatus() == QProcess::CrashExit) {
        return fail(failure, ExitCode::NoViewer, u"The viewer \"%1\" crashed."_s.arg(command.first()));
    }
    if (process.exitCode() != 0) {
        return fail(
            failure, ExitCode::NoViewer,
            u"The viewer \"%1\" ended with exit code %2."_s.arg(command.first(), QString::number(process.exitCode())));
    }
    return true;
}
