// SPDX-License-Identifier: MIT
#pragma once

#include "agent/session/agentfiles.h"

#include <QString>

/**
 * The file that tells how a session ended. Its disk space is reserved at the start, so that it can be written even if
 * the disk is full at the end. Its name appears together with its content. For one thread.
 */
class ExitFile final
{
public:
    /** Reserves the space in the working directory, if the file system can. Removes the file of an earlier run. */
    ExitFile();
    ~ExitFile();
    Q_DISABLE_COPY_MOVE(ExitFile)

    /**
     * Makes the file appear with @p code in it.
     *
     * @param error  set only on failure: one sentence that names the file
     */
    [[nodiscard]] bool write(AgentExitCode code, QString *error);

private:
    [[nodiscard]] bool writeReserved(const QByteArray &content) const;

    int descriptor = -1; ///< the reserved file, which has no name yet; -1: none
};
