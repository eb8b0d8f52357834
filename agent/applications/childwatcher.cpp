// SPDX-License-Identifier: MIT
#include "agent/applications/childwatcher.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>

#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

sigset_t childSignal()
{
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGCHLD);
    return set;
}

int statusOf(const siginfo_t &child)
{
    return child.si_code == CLD_EXITED ? W_EXITCODE(child.si_status, 0) : child.si_status;
}

} // namespace

ChildWatcher::ChildWatcher(QObject *parent)
    : QObject(parent)
{
}

ChildWatcher::~ChildWatcher()
{
    notifier.reset();
    if (descriptor != -1) {
        ::pthread_sigmask(SIG_SETMASK, &maskBefore, nullptr);
        ::close(descriptor);
    }
}

bool ChildWatcher::start(QString *error)
{
    const sigset_t set = childSignal();
    descriptor = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor == -1) {
        *error = u"Failed to watch child processes: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    // Some parents leave the signal ignored, and then the kernel throws the exit codes away.
    ::signal(SIGCHLD, SIG_DFL);
    ::pthread_sigmask(SIG_BLOCK, &set, &maskBefore);
    notifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &ChildWatcher::reap);
    return true;
}

void ChildWatcher::reap()
{
    signalfd_siginfo information;
    while (::read(descriptor, &information, sizeof information) > 0) {
    }
    // One signal may stand for any number of children.
    siginfo_t child = {};
    while (::waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0 && child.si_pid != 0) {
        emit ended(child.si_pid, statusOf(child));
        ::waitpid(child.si_pid, nullptr, WNOHANG);
        child = {};
    }
}
