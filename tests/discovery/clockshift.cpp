// SPDX-License-Identifier: MIT
// Preloaded into a server, this moves the server's clocks forward, so that timeouts of minutes are tested in seconds.
// The file named by ZARVO_CLOCK_SHIFT holds two native 64-bit integers: the seconds for the wall clock and those for
// the monotonic clock. Both may change at any time.

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

struct Shifts
{
    std::atomic<std::int64_t> wall;
    std::atomic<std::int64_t> monotonic;
};

const Shifts *mapShifts()
{
    static const Shifts none{};
    const char *path = std::getenv("ZARVO_CLOCK_SHIFT");
    const int file = path ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file == -1) {
        return &none;
    }
    void *mapped = ::mmap(nullptr, sizeof(Shifts), PROT_READ, MAP_SHARED, file, 0);
    ::close(file);
    return mapped == MAP_FAILED ? &none : static_cast<const Shifts *>(mapped);
}

std::int64_t shiftOf(clockid_t clock)
{
    static const Shifts *shifts = mapShifts();
    switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
        return shifts->wall;
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_COARSE:
        return shifts->monotonic;
    default:
        return 0;
    }
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const auto result = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
    if (result == 0) {
        now->tv_sec += shiftOf(clock);
    }
    return result;
}

int gettimeofday(timeval *now, void *) noexcept
{
    timespec precise = {};
    const int result = clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return result;
}

time_t time(time_t *out) noexcept
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (out) {
        *out = now.tv_sec;
    }
    return now.tv_sec;
}
}
