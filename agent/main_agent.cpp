// SPDX-License-Identifier: MIT
#include "agent/session/agent.h"
#include "agent/session/agentfiles.h"
#include "agent/session/exitfile.h"
#include "agent/session/guard.h"
#include "agent/session/guardlink.h"
#include "agent/session/sessionlog.h"
#include "base/signalcatcher.h"
#include "contract/application.h"
#include "support/processhardening.h"
#include "support/standardstreams.h"

#include <QCoreApplication>

#include <array>
#include <csignal>
#include <cstdio>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

AgentExitCode report(const QString &error)
{
    std::fprintf(stderr, "start-agent: %s\n", qPrintable(error));
    return AgentExitCode::NotStarted;
}

/** Unblocks the signals last. They were blocked before there was a handler, so none that came meanwhile is lost. */
void catchSignals(int writeEnd)
{
    setSignalWriteEnd(writeEnd);
    for (const int number : {SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGHUP}) {
        catchSignal(number);
    }
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

/** When this returns, everything that the session owned is gone. */
AgentExitCode runSession(SessionLog *log, int guard, int signalReadEnd, int signalWriteEnd)
{
    AgentExitCode code = AgentExitCode::NotStarted;
    SignalCatcher catcher(signalReadEnd);
    GuardLink link(guard);
    Agent agent(log, &catcher, &link);
    QObject::connect(&agent, &Agent::finished, &agent, [&code](AgentExitCode finalCode) {
        code = finalCode;
        QCoreApplication::quit();
    });
    catchSignals(signalWriteEnd);
    QMetaObject::invokeMethod(
        &agent, [&agent] { agent.start(QCoreApplication::arguments().sliced(1)); }, Qt::QueuedConnection);
    QCoreApplication::exec();
    return code;
}

AgentExitCode runAgent(int argc, char **argv, int guard)
{
    const QCoreApplication application(argc, argv);
    nameApplication(); // the server's settings say where the certificate is
    QString error;
    SessionLog log;
    std::array<int, 2> signalEnds = {};
    if (!log.open(SessionFile::kServerLog, &error)) {
        return report(error);
    }
    Logging::setInstance(&log);
    if (!createSignalPair(signalEnds.data())) {
        return report(qt_error_string());
    }
    return runSession(&log, guard, signalEnds[1], signalEnds[0]);
}

/** Writes the exit file, which is the last step of every session, however it ends. */
int leave(ExitFile *exitFile, AgentExitCode code)
{
    QString error;
    if (!exitFile->write(code, &error)) {
        report(error);
    }
    return static_cast<int>(code);
}

} // namespace

/** Usage: start-agent GEOMETRY PORT, in a session directory. */
int main(int argc, char **argv)
{
    disableCoreFiles();
    ensureStandardStreams();
    ::umask(077);
    ::signal(SIGXFSZ, SIG_IGN); // so that a write beyond the file size limit fails and does not kill us

    ExitFile exitFile;
    pid_t agent = 0;
    int link = -1;
    QString error;
    if (!forkAgent(&agent, &link, &error)) {
        return leave(&exitFile, report(error));
    }
    if (agent != 0) {
        return leave(&exitFile, guardAgent(agent, link));
    }
    // Not the guard: servers read the working directory of the process in monitor_pid.
    disableInspection();
    const AgentExitCode code = runAgent(argc, argv, link);
    return isGuardAlive(link) ? static_cast<int>(code) : leave(&exitFile, code);
}
