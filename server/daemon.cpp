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

/** Moves an open descriptor to another number, where the programs that we start inherit it. */
bool moveDescriptor(int from, int to)
{
    if (from == to) {
        return ::fcntl(to, F_SETFD, 0) == 0; // the caller had closed this number, so open() chose it
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

/** Makes a signal have no effect here. Programs that we start get its default action, unlike with SIG_IGN. */
void catchAndIgnore(int number)
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

/** Copies messages until the other end is closed, and then ends the parent. */
[[noreturn]] void relayMessages(int readEnd)
{
    catchAndIgnore(SIGPIPE);
    moveDescriptor(readEnd, STDIN_FILENO);
    std::array<char, 256> chunk{};
    for (;;) {
        const ssize_t length = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (length <= 0 || !writeAll(chunk.data(), static_cast<size_t>(length))) {
            ::_exit(0);
        }
    }
}

/** Resets what the caller has blocked or ignored, because the server and its programs would inherit it. */
void resetSignals()
{
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int number = 1; number <= SIGRTMAX; ++number) {
        ::sigaction(number, &action, nullptr); // fails for some, which does not matter
    }
    // If the reader of our messages goes away, we still have to clean up.
    catchAndIgnore(SIGPIPE);
    // At the limit of file sizes a write must fail, as on a full disk, and not end the process.
    catchAndIgnore(SIGXFSZ);
}

bool detach(int writeEnd)
{
    if (!moveDescriptor(writeEnd, STDERR_FILENO)) {
        return false;
    }
    // Close what the caller left open, or the agents would inherit it.
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
