// SPDX-License-Identifier: MIT
#include "tests/engine/systemfault.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

thread_local SystemFault fault;

namespace {

qint64 nanoseconds(const timespec &time)
{
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

} // namespace

/** These replace the C library's functions and do their work through other system calls. */

extern "C" int lstat(const char *path, struct stat *status) noexcept
{
    const int outcome = ::fstatat(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
    if (outcome == 0 && fault.hideLinks && S_ISLNK(status->st_mode)) {
        status->st_mode = S_IFDIR | 0700;
    }
    return outcome;
}

extern "C" int nanosleep(const timespec *wanted, timespec *left)
{
    if (fault.recordSleeps) {
        fault.sleepsInNs.push_back(nanoseconds(*wanted));
    }
    if (const int error = std::exchange(fault.sleepErrno, 0); error != 0) {
        if (error == EINTR) {
            *left = {wanted->tv_sec / 2, wanted->tv_nsec / 2};
        }
        errno = error;
        return -1;
    }
    errno = ::clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, left);
    return errno == 0 ? 0 : -1;
}
