// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <functional>

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

/** A user without any rights here, who exists on every machine. */
inline constexpr uid_t kStrangerId = 65534;

/** Only root can play another user. Tests with a stranger skip, and say so, if this is false. */
inline bool canPlayStranger()
{
    return ::geteuid() == 0;
}

/**
 * Another user's process: a child that runs a function as kStrangerId and then waits until it is killed. The function
 * may use system calls only, because it runs between fork() and exec() of a program that may have threads.
 */
class Stranger final
{
public:
    explicit Stranger(const std::function<void()> &act)
    {
        int ends[2] = {-1, -1};
        if (::pipe(ends) != 0) {
            return;
        }
        child = ::fork();
        if (child == 0) {
            if (::setresgid(kStrangerId, kStrangerId, kStrangerId) != 0 ||
                ::setresuid(kStrangerId, kStrangerId, kStrangerId) != 0) {
                ::_exit(1);
            }
            act();
            [[maybe_unused]] const ssize_t told = ::write(ends[1], "x", 1);
            for (;;) {
                ::pause();
            }
        }
        ::close(ends[1]);
        char byte = 0;
        acted = ::read(ends[0], &byte, 1) == 1;
        ::close(ends[0]);
    }
    ~Stranger()
    {
        if (child > 0) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
    }
    Q_DISABLE_COPY_MOVE(Stranger)

    /** Whether the function has returned. */
    [[nodiscard]] bool hasActed() const { return acted; }

private:
    pid_t child = -1;
    bool acted = false;
};
