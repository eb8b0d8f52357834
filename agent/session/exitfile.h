// SPDX-License-Identifier: MIT
#pragma once

#include "agent/session/agentfiles.h"

#include <QString>

/**
 * The file that tells how a session ended. Its place on the disk is taken at the beginning, so that a disk which is
 * full by the end does not leave the session without an answer; the name appears with the content. Not for threads.
 */
class ExitFile final
{
public:
    /** Takes the place in the working directory, where the file system can do that. Removes the file of a former run.
     */
    ExitFile();
    ~ExitFile();
    ExitFile(const ExitFile &) = delete;
    ExitFile &operator=(const ExitFile &) = delete;

    /**
     * Lets the file appear, with @p code in it.
     *
     * @param error  set only on failure: one sentence that names the file
     */
    [[nodiscard]] bool write(AgentExitCode code, QString *error);

private:
    [[nodiscard]] bool writeReserved(const QByteArray &content) const;

    int descriptor = -1; ///< of the file without a name; -1: none
};
