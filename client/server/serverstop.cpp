// SPDX-License-Identifier: MIT
#include "client/server/serverstop.h"

#include "client/server/serverprocess.h"
#include "client/terminal/eventwait.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** A handle on one process. It never refers to a later process that got the same pid. */
class ProcessHandle
{
public:
    explicit ProcessHandle(qint64 pid)
        : descriptor(static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0)))
    {
    }
    ~ProcessHandle()
    {
        if (descriptor != -1) {
            ::close(descriptor);
        }
    }
    Q_DISABLE_COPY_MOVE(ProcessHandle)

    [[nodiscard]] int get() const { return descriptor; }
    [[nodiscard]] bool signal(int number) const
    {
        return ::syscall(SYS_pidfd_send_signal, descriptor, number, nullptr, 0) == 0;
    }
    [[nodiscard]] bool hasEnded() const
    {
        pollfd state = {descriptor, POLLIN, 0};
        return ::poll(&state, 1, 0) == 1;
    }

private:
    int descriptor;
};

} // namespace

bool stopServer(qint64 pid, std::chrono::milliseconds timeout, Failure *failure)
{
    const ProcessHandle process(pid);
    // The handle is opened before the check, so the process that is checked is the one that gets the signal.
    if (process.get() == -1 || !isServerProcess(pid)) {
        return fail(failure, ExitCode::NoServer, u"No server is running."_s);
    }
    if (!process.signal(SIGTERM)) {
        return fail(failure, ExitCode::NoServer,
                    u"Failed to signal process %1: %2."_s.arg(pid).arg(qt_error_string(errno)));
    }
    EventWait wait([&process] { return process.hasEnded(); });
    QSocketNotifier notifier(process.get(), QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, wait.context(), [&wait] { wait.wake(); });
    return wait.run(timeout) ||
           fail(failure, ExitCode::TimedOut, u"The server, process %1, did not end in time."_s.arg(pid));
}
