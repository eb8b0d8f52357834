// SPDX-License-Identifier: MIT
#include "support/kernelfeatures.h"

#include <cstdint>

#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sys/syscall.h>
#include <unistd.h>

bool canFilterSystemCalls()
{
    // What our filters do with a forbidden call.
    const std::uint32_t action = SECCOMP_RET_ERRNO;
    return ::syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &action) == 0;
}

bool canHideFiles()
{
    // A kernel that has Landlock, but was started without it, says so here.
    return ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) >= 1;
}
