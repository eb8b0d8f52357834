// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <vector>

/** What system calls do on demand, on the thread that runs the tests alone. */
struct SystemFault
{
    bool hideLinks = false;         ///< lstat() finds no symbolic links
    int sleepErrno = 0;             ///< how nanosleep() fails; EINTR: once, with half of the time left
    bool recordSleeps = false;      ///< keeps what nanosleep() is asked for
    std::vector<qint64> sleepsInNs; ///< what it was asked for
};
extern thread_local SystemFault fault;
