// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <csignal>

#include <sys/resource.h>

/** While it exists, no file of this process can grow, as on a full disk. */
class FullDisk final
{
public:
    FullDisk()
        : previousHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        ::getrlimit(RLIMIT_FSIZE, &previousLimit);
        const rlimit none = {0, previousLimit.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &none);
    }
    ~FullDisk()
    {
        ::setrlimit(RLIMIT_FSIZE, &previousLimit);
        std::signal(SIGXFSZ, previousHandler);
    }
    Q_DISABLE_COPY_MOVE(FullDisk)

private:
    void (*previousHandler)(int);
    rlimit previousLimit = {};
};
