// SPDX-License-Identifier: MIT
#pragma once

#include <sys/fsuid.h>
#include <unistd.h>

/**
 * While it lives, permissions of files count for the thread that made it even when the tests run as root.
 * An ordinary user's thread is what it should be already.
 */
class OrdinaryFilesystemUser final
{
public:
    OrdinaryFilesystemUser()
    {
        if (::geteuid() == 0) {
            ::setfsuid(kNobody);
        }
    }
    ~OrdinaryFilesystemUser() { ::setfsuid(::geteuid()); }
    OrdinaryFilesystemUser(const OrdinaryFilesystemUser &) = delete;
    OrdinaryFilesystemUser &operator=(const OrdinaryFilesystemUser &) = delete;

private:
    static constexpr uid_t kNobody = 65534;
};
