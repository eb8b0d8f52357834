// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <vector>

/** Faults of system calls, only on the thread that sets them. */
struct SystemFault
{
    bool hideLinks = false;         ///< lstat() finds no symbolic links
    int sleepErrno = 0;             ///< how nanosleep() fails once; EINTR leaves half of the time
    bool recordSleeps = false;      ///< whether sleepsInNs is filled
    std::vector<qint64> sleepsInNs; ///< the arguments of nanosleep()
};
extern thread_local SystemFault fault;
