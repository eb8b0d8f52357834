// SPDX-License-Identifier: MIT
#include "agent/applications/spawn.h"

#include "support/processhardening.h"

#include <algorithm>
#include <array>
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

constexpr size_t kMaxInherited = 4;
constexpr size_t kMaxPidDigits = 10; ///< of any 32-bit number

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
    constexpr int kFirst = STDERR_FILENO + 1;
    const int count = static_cast<int>(request.inherited.size());
    // Copied to higher numbers first, because a descriptor may have the number that another one is to get.
    std::array<int, kMaxInherited> copies = {};
    for (int i = 0; i < count; ++i) {
        copies[static_cast<size_t>(i)] = ::fcntl(request.inherited[i], F_DUPFD, kFirst + count);
    }
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    const int output = request.output == -1 ? nowhere : request.output;
    ::dup2(nowhere, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    for (int i = 0; i < count; ++i) {
        ::dup2(copies[static_cast<size_t>(i)], kFirst + i);
    }
    ::close_range(static_cast<unsigned int>(kFirst + count), ~0U, 0);
}

/** Writes our pid into @p text, which is long enough and full of zeros. */
void writePid(char *text)
{
    std::array<char, kMaxPidDigits> digits = {};
    size_t count = 0;
    for (pid_t rest = ::getpid(); rest != 0 && count < digits.size(); rest /= 10) {
        digits[count++] = static_cast<char>('0' + rest % 10);
    }
    std::reverse_copy(digits.begin(), digits.begin() + count, text);
}

void writeText(const char *text)
{
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, std::strlen(text));
}

[[noreturn]] void runChild(const SpawnRequest &request, pid_t parent, char *const *arguments, char *const *environment,
                           char *pidText)
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    resetSignals();
    if (::getppid() != parent) {
        ::_exit(kProgramNotRun); // the parent died before prctl(), so no signal will come
    }
    ::setsid();
    arrangeDescriptors(request);
    ::umask(request.fileCreationMask);
    restoreCoreFiles();
    if (pidText != nullptr) {
        writePid(pidText);
    }
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
    Q_ASSERT(request.inherited.size() <= static_cast<qsizetype>(kMaxInherited));
    const std::vector<char *> arguments = pointersTo(request.arguments);
    QList<QByteArray> variables = request.environment;
    if (!request.pidVariable.isEmpty()) {
        variables.append(request.pidVariable + '=' + QByteArray(kMaxPidDigits + 1, '\0'));
    }
    const std::vector<char *> environment = pointersTo(variables);
    char *const pidText = request.pidVariable.isEmpty()
                              ? nullptr
                              : environment[static_cast<size_t>(variables.size()) - 1] + request.pidVariable.size() + 1;
    const pid_t parent = ::getpid();

    // Block all signals until the child has reset its handlers. Until then the child's copies of our handlers would
    // write to our pipe, and we would take a signal to the child for one to us.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t child = ::fork();
    if (child == 0) {
        runChild(request, parent, arguments.data(), environment.data(), pidText);
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
