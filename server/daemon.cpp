// SPDX-License-Identifier: MIT
#include "server/daemon.h"

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr const char *kNullDevice = "/dev/null";

QString systemError()
{
    return qt_error_string(errno);
}

/** Gives an open file another number, under which the programs that we start have it too. */
bool moveDescriptor(int from, int to)
{
    if (from == to) {
        return ::fcntl(to, F_SETFD, 0) == 0; // opened in the place of what the caller had closed
    }
    if (::dup2(from, to) == -1) {
        return false;
    }
    ::close(from);
    return true;
}

bool openNullDevice(int descriptor, int flags)
{
    const int null = ::open(kNullDevice, flags | O_CLOEXEC);
    return null != -1 && moveDescriptor(null, descriptor);
}

void doNothing(int)
{
}

/** Makes a signal have no effect here and, unlike an ignored one, its usual effect in programs that we start. */
void catchNothingOf(int number)
{
    struct sigaction action = {};
    action.sa_handler = doNothing;
    ::sigaction(number, &action, nullptr);
}

bool writeAll(const char *data, size_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(STDERR_FILENO, data, length);
        if (written == -1) {
            return false;
        }
        data += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

/** The parent's whole remaining life. */
[[noreturn]] void relayMessages(int readEnd)
{
    catchNothingOf(SIGPIPE);
    moveDescriptor(readEnd, STDIN_FILENO);
    std::array<char, 256> chunk{};
    for (;;) {
        const ssize_t length = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (length <= 0 || !writeAll(chunk.data(), static_cast<size_t>(length))) {
            ::_exit(0);
        }
    }
}

/** A blocked or ignored signal would stay so in the server and in all that it starts. */
void resetSignals()
{
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int number = 1; number <= SIGRTMAX; ++number) {
        ::sigaction(number, &action, nullptr); // some cannot be changed, and need not be
    }
    // Whoever reads our messages may go away; that is no reason to end without cleaning up.
    catchNothingOf(SIGPIPE);
    // Where files may not grow any more, a write fails, as on a full disk.
    catchNothingOf(SIGXFSZ);
}

bool detach(int writeEnd)
{
    if (!moveDescriptor(writeEnd, STDERR_FILENO)) {
        return false;
    }
    // What the caller left open is not ours to keep, nor to hand on to the agents.
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    resetSignals();
    return ::setsid() != -1 && ::chdir("/") == 0 && openNullDevice(STDIN_FILENO, O_RDONLY) &&
           openNullDevice(STDOUT_FILENO, O_WRONLY);
}

} // namespace

bool becomeDaemon(QString *error)
{
    const auto fail = [error] {
        *error = u"Failed to become a daemon: %1"_s.arg(systemError());
        return false;
    };

    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) == -1) {
        return fail();
    }
    const pid_t child = ::fork();
    if (child == -1) {
        const bool failed = fail();
        ::close(ends[0]);
        ::close(ends[1]);
        return failed;
    }
    if (child != 0) {
        ::close(ends[1]);
        relayMessages(ends[0]);
    }
    ::close(ends[0]);
    return detach(ends[1]) || fail();
}

bool closeStartupChannel(QString *error)
{
    if (!openNullDevice(STDERR_FILENO, O_WRONLY)) {
        *error = u"Failed to close the communication pipe: %1"_s.arg(systemError());
        return false;
    }
    return true;
}
