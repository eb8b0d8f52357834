// SPDX-License-Identifier: MIT
#include "agent/session/guard.h"

#include "agent/applications/processtree.h"
#include "agent/display/displayconnection.h"
#include "agent/display/xserverfiles.h"
#include "support/localendpoint.h"

#include <QFile>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kTerminateTime = 3s; ///< between SIGTERM and SIGKILL
constexpr auto kKillTime = 5s;      ///< after the first SIGKILL; on a busy machine a killed process takes long to end
constexpr auto kPollInterval = 20ms;

/** Renamed, so that `pkill start-agent` spares it. */
constexpr char kProcessName[] = "session-guard";

constexpr std::array kGuardedSignals = {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2};

sigset_t guardedSignals()
{
    sigset_t set;
    ::sigemptyset(&set);
    for (const int number : kGuardedSignals) {
        ::sigaddset(&set, number);
    }
    return set;
}

/**
 * Makes the signals wait until we take them. They get their default action first, because a parent may have left them
 * ignored, and with SIGCHLD ignored the kernel throws exit codes away.
 */
void holdSignals()
{
    for (const int number : kGuardedSignals) {
        ::signal(number, SIG_DFL);
    }
    const sigset_t set = guardedSignals();
    ::pthread_sigmask(SIG_SETMASK, &set, nullptr);
}

AgentHoldings lastHoldings(int link)
{
    AgentHoldings last;
    AgentHoldings next;
    while (::recv(link, &next, sizeof next, MSG_DONTWAIT) == ssize_t{sizeof next}) {
        last = next;
    }
    return last;
}

/** @return the status of the agent, in the form of waitpid() */
int waitForAgent(pid_t agent)
{
    const sigset_t set = guardedSignals();
    int status = 0;
    while (::waitpid(agent, &status, WNOHANG) == 0) {
        const int number = ::sigwaitinfo(&set, nullptr);
        if (number > 0 && number != SIGCHLD) {
            ::kill(agent, number);
        }
    }
    return status;
}

/**
 * Reaps the orphans of the agent, which are our children, and removes the files of the X server. This happens before
 * its process is reaped, because no other X server can have its pid until then.
 *
 * @return whether any are left
 */
bool reapOrphans(const AgentHoldings &holdings)
{
    siginfo_t ended = {};
    while (::waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0) {
        if (ended.si_pid == 0) {
            return true;
        }
        if (ended.si_pid == holdings.xServer) {
            removeXServerFiles(static_cast<quint16>(holdings.display), holdings.xServer);
        }
        ::waitpid(ended.si_pid, nullptr, WNOHANG);
        ended = {};
    }
    return false;
}

void waitForNextLook()
{
    const sigset_t set = guardedSignals();
    constexpr timespec kInterval = {0, std::chrono::nanoseconds(kPollInterval).count()};
    ::sigtimedwait(&set, nullptr, &kInterval);
}

/** @return whether all orphans have ended in time */
bool awaitOrphans(const AgentHoldings &holdings, Clock::duration limit)
{
    const Clock::time_point begin = Clock::now();
    while (reapOrphans(holdings)) {
        if (Clock::now() - begin > limit) {
            return false;
        }
        waitForNextLook();
    }
    return true;
}

void endOrphans(const AgentHoldings &holdings)
{
    if (!reapOrphans(holdings)) {
        return;
    }
    signalAll(liveDescendants(::getpid(), 0), SIGTERM);
    if (awaitOrphans(holdings, kTerminateTime)) {
        return;
    }
    // In a loop, because they may start others. At least once, because a machine that stands still may use up all the
    // time.
    const Clock::time_point begin = Clock::now();
    do {
        signalAll(liveDescendants(::getpid(), 0), SIGKILL);
        waitForNextLook();
    } while (reapOrphans(holdings) && Clock::now() - begin <= kKillTime);
}

void removeDeadSockets(quint16 display)
{
    QString error; // ignored: the socket belongs to another process, so it must stay
    for (const QString &path :
         {agentSocketPath(display), AgentFile::applicationSocket(display), AgentFile::rfbSocket(display),
          viewerSocketName(display), u"%1/X%2"_s.arg(QLatin1StringView(kDisplaySocketFolder)).arg(display)}) {
        [[maybe_unused]] const bool removed = removeDeadSocket(path, &error);
    }
}

} // namespace

bool forkAgent(pid_t *agent, int *link, QString *error)
{
    std::array<int, 2> ends = {};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        *error = u"Failed to create a socket pair: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    if (!becomeSubreaper(error)) { // the child does not inherit this
        return false;
    }
    holdSignals();
    const pid_t child = ::fork();
    if (child == -1) {
        *error = u"Failed to start a process: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    const bool isGuard = child != 0;
    ::close(ends[isGuard ? 1 : 0]);
    *link = ends[isGuard ? 0 : 1];
    *agent = child;
    return true;
}

AgentExitCode guardAgent(pid_t agent, int link)
{
    ::prctl(PR_SET_NAME, kProcessName);
    const int status = waitForAgent(agent);
    const AgentHoldings holdings = lastHoldings(link);
    endOrphans(holdings);
    if (holdings.display != -1) {
        removeDeadSockets(static_cast<quint16>(holdings.display));
        QFile::remove(AgentFile::kWindowManagerSettings);
    }
    return WIFEXITED(status) ? static_cast<AgentExitCode>(WEXITSTATUS(status)) : AgentExitCode::AgentDied;
}
