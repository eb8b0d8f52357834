// SPDX-License-Identifier: MIT
#include "agent/applications/spawn.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

std::vector<char *> pointersTo(const QList<QByteArray> &texts)
{
    std::vector<char *> pointers;
    pointers.reserve(static_cast<size_t>(texts.size()) + 1);
    for (const QByteArray &text : texts) {
        pointers.push_back(const_cast<char *>(text.constData()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Everything from here to runChild() runs between fork() and exec(). Only functions that are safe in a signal handler
// may be called there, because another thread may have held any lock at the fork, also the allocator's.

void resetSignals()
{
    // Ignored signals stay ignored in a new program. An X server that finds SIGUSR1 ignored sends it to its parent when
    // it is ready, and to us that is a request for a password.
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        ::sigaction(number, &action, nullptr);
    }
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void arrangeDescriptors(const SpawnRequest &request)
{
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    const int output = request.output == -1 ? nowhere : request.output;
    ::dup2(nowhere, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    unsigned int firstUnwanted = STDERR_FILENO + 1;
    if (request.inheritedAsThree != -1) {
        const int three = STDERR_FILENO + 1;
        ::dup2(request.inheritedAsThree, three);
        ::fcntl(three, F_SETFD, 0); // dup2() onto itself leaves close-on-exec as it is
        ++firstUnwanted;
    }
    ::close_range(firstUnwanted, ~0U, 0);
}

void writeText(const char *text)
{
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, std::strlen(text));
}

[[noreturn]] void runChild(const SpawnRequest &request, pid_t parent, char *const *arguments, char *const *environment)
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    resetSignals();
    if (::getppid() != parent) {
        ::_exit(kProgramNotRun); // the parent died before prctl(), so no signal will come
    }
    ::setsid();
    arrangeDescriptors(request);
    ::umask(request.fileCreationMask);
    if (!request.workingDirectory.isEmpty()) {
        [[maybe_unused]] const int changed = ::chdir(request.workingDirectory.constData());
    }
    ::execve(request.program.constData(), arguments, environment);
    writeText("Failed to run the program: ");
    writeText(::strerrordesc_np(errno));
    writeText("\n");
    ::_exit(kProgramNotRun);
}

} // namespace

pid_t spawnProcess(const SpawnRequest &request, QString *error)
{
    const std::vector<char *> arguments = pointersTo(request.arguments);
    const std::vector<char *> environment = pointersTo(request.environment);
    const pid_t parent = ::getpid();

    // Block all signals until the child has reset its handlers. Until then the child's copies of our handlers would
    // write to our pipe, and we would take a signal to the child for one to us.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t child = ::fork();
    if (child == 0) {
        runChild(request, parent, arguments.data(), environment.data());
    }
    const int saved = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (child == -1) {
        *error = u"Failed to start the program \"%1\": %2"_s.arg(QString::fromLocal8Bit(request.program),
                                                                 qt_error_string(saved));
    }
    return child;
}

QString exitStatusText(int status)
{
    if (WIFSIGNALED(status)) {
        return u"signal %1"_s.arg(WTERMSIG(status));
    }
    return u"exit code %1"_s.arg(WEXITSTATUS(status));
}
