// SPDX-License-Identifier: MIT
#include "client/reach/viewer.h"

#include "client/reach/vncpasswordfile.h"
#include "client/terminal/eventwait.h"
#include "support/processhardening.h"

#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <csignal>

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** As a shell does for a program that cannot be executed. */
constexpr int kCannotStart = 126;

QStringList configuredCommand()
{
    return QProcess::splitCommand(qEnvironmentVariable("ZARVO_VIEWER"));
}

/** The names of known viewers; the first one found is used. */
QStringList knownViewers()
{
    return {u"xtigervncviewer"_s, u"vncviewer"_s};
}

/** Debian's alternatives let "vncviewer" be a link to the viewer that is installed. */
bool isTigerVncProgram(const QString &path)
{
    return QFileInfo(QFileInfo(path).canonicalFilePath()).fileName() == "xtigervncviewer"_L1 ||
           QFileInfo(path).fileName() == "xtigervncviewer"_L1;
}

bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

bool isFound(const QStringList &command)
{
    return !QStandardPaths::findExecutable(command.first()).isEmpty();
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
    for (const QString &known : knownViewers()) {
        const QString path = QStandardPaths::findExecutable(known);
        if (!path.isEmpty()) {
            command = QStringList{known};
            isTigerVnc = isTigerVncProgram(path);
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

bool Viewer::showPort(quint16 port, const QString &password, Failure *failure)
{
    const QString address = u"127.0.0.1::%1"_s.arg(port);
    if (password.isEmpty()) {
        return run({address}, {}, failure);
    }
    VncPasswordFile passwordFile;
    QString error;
    if (!passwordFile.create(password, &error)) {
        return fail(failure, ExitCode::NoViewer, error + u'.');
    }
    // Without the option it would prefer TLS, and ask the user whether the server's own certificate is good.
    const QStringList security = isTigerVnc ? QStringList{u"-SecurityTypes"_s, u"VncAuth"_s} : QStringList();
    return run(security + QStringList{u"-passwd"_s, passwordFile.path(), address},
               {.password = passwordFile.descriptor()}, failure);
}

bool Viewer::showSocket(const PrivateDirectory &directory, const QString &name, Failure *failure)
{
    return run({u"-SecurityTypes"_s, u"None"_s, u"./"_s + name}, {.directory = directory.descriptor()}, failure);
}

/** Runs in the child, between fork and exec. */
void Viewer::prepareChild(Inherited inherited)
{
    if (inherited.password != -1) {
        ::fcntl(inherited.password, F_SETFD, 0);
    }
    if (inherited.directory != -1 && ::fchdir(inherited.directory) != 0) {
        ::_exit(kCannotStart);
    }
    // Our standard output is for data, which the viewer's messages would spoil.
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    restoreCoreFiles();
}

bool Viewer::run(const QStringList &arguments, Inherited inherited, Failure *failure)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    process.setChildProcessModifier([inherited] { prepareChild(inherited); });

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
    process.start(command.first(), command.sliced(1) + arguments);
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
