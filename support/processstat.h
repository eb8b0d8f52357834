// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <optional>

#include <sys/types.h>

/** What /proc/PID/stat shows about a process. A plain value. */
struct ProcessStat
{
    QByteArray name; ///< up to 15 bytes; the process can set it to anything
    pid_t parent = 0;
    bool hasEnded = false; ///< a zombie keeps its pid and name until its parent waits for it, which some never do
};

/** Null if @p line has another form, for example because it is cut off. */
[[nodiscard]] std::optional<ProcessStat> parseProcessStat(const QByteArray &line);

/** Null if there is no such process, or if this user may not see it. Callable from any thread. */
[[nodiscard]] std::optional<ProcessStat> readProcessStat(qint64 pid);
