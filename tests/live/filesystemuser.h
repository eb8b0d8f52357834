// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <sys/fsuid.h>
#include <unistd.h>

/**
 * While it lives, file permissions apply to the thread that created it, even if the tests run as root. Does nothing for
 * an ordinary user.
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
    Q_DISABLE_COPY_MOVE(OrdinaryFilesystemUser)

private:
    static constexpr uid_t kNobody = 65534;
};
