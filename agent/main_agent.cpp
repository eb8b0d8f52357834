// SPDX-License-Identifier: MIT
#include "agent/agent.h"
#include "agent/agentfiles.h"
#include "agent/agentlog.h"
#include "agent/valuefile.h"
#include "server/signalcatcher.h"

#include <QCoreApplication>
#include <QFile>

#include <array>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Whoever started us may have had signals blocked, and with SIGTERM blocked we could not be ended.
void clearSignalMask()
{
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Without them, our first files and sockets would get their numbers, and what a library prints would end up there.
void ensureStandardDescriptors()
{
    int descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor != -1 && descriptor <= STDERR_FILENO) {
        descriptor = ::open("/dev/null", O_RDWR);
    }
    ::close(descriptor);
}

int report(const QString &error)
{
    std::fprintf(stderr, "start-agent: %s\n", qPrintable(error));
    return static_cast<int>(ExitCode::NotStarted);
}

void catchSignals(int writeEnd)
{
    setSignalWriteEnd(writeEnd);
    for (const int number : {SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGHUP}) {
        catchSignal(number);
    }
    ::signal(SIGPIPE, SIG_IGN);
}

// Everything that a session owns is gone when this returns.
ExitCode runSession(AgentLog *log, int signalReadEnd, int signalWriteEnd)
{
    ExitCode code = ExitCode::NotStarted;
    SignalCatcher catcher(signalReadEnd);
    Agent agent(log, &catcher);
    QObject::connect(&agent, &Agent::finished, &agent, [&code](ExitCode finalCode) {
        code = finalCode;
        QCoreApplication::quit();
    });
    catchSignals(signalWriteEnd);
    QMetaObject::invokeMethod(
        &agent, [&agent] { agent.start(QCoreApplication::arguments().sliced(1)); }, Qt::QueuedConnection);
    QCoreApplication::exec();
    return code;
}

} // namespace

// Usage: start-agent GEOMETRY PORT, in a session directory.
int main(int argc, char **argv)
{
    clearSignalMask();
    ensureStandardDescriptors();
    ::umask(077);
    const QCoreApplication application(argc, argv);

    // From a former run in the same directory; until the end there is no exit code.
    QFile::remove(SessionFile::kServerExit);

    QString error;
    AgentLog log;
    std::array<int, 2> signalEnds = {};
    if (!log.open(SessionFile::kServerLog, &error)) {
        return report(error);
    }
    Logging::setInstance(&log);
    if (!createSignalPair(signalEnds.data())) {
        return report(qt_error_string());
    }

    const ExitCode code = runSession(&log, signalEnds[1], signalEnds[0]);
    if (!writeValueFile(SessionFile::kServerExit, QByteArray::number(static_cast<int>(code)), &error)) {
        logMessage(LogCritical, error);
    }
    return static_cast<int>(code);
}
