// SPDX-License-Identifier: MIT
#pragma once

#include "base/instancefiles.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

#include <optional>

/**
 * What the process that holds an instance lock has written about itself into the lock files. It tells what /proc would
 * tell about a process that can be inspected. A plain value.
 */
struct InstanceRecord
{
    qint64 pid = 0;
    QList<QByteArray> environment; ///< "NAME=value", as the process got it; only what others may need

    /** This process, with its HOME and its search path, which doctor compares with its own. */
    [[nodiscard]] static InstanceRecord ofThisProcess();

    /** Null if the variable was not set. */
    [[nodiscard]] std::optional<QByteArray> variable(QByteArrayView name) const;

    friend bool operator==(const InstanceRecord &, const InstanceRecord &) = default;
};

/** The pid in decimal on a line of its own, then the variables. */
[[nodiscard]] QByteArray textOf(const InstanceRecord &record);

/** Null unless the text is whole: the file may be read while it is written. */
[[nodiscard]] std::optional<InstanceRecord> parseInstanceRecord(const QByteArray &text);

/**
 * Whether another process holds the lock file. Locked files with several hard links count only if they contain a
 * record.
 * @param holder  null if the process has not written its record yet, or could not
 */
[[nodiscard]] bool isLockHeld(const QByteArray &path, std::optional<InstanceRecord> *holder);

/**
 * The records in the files that processes hold locked now. One process is listed once, although it has a file in each
 * folder. Empty also for a process that has not written its record yet. Callable from any thread; never waits.
 */
[[nodiscard]] QList<InstanceRecord> lockHolders(const InstanceFiles &files);
