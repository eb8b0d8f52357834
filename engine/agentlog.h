// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

struct Session;

/**
 * Applies the agent's log to the record: every line of one of the six known forms, up to the end of the file or its
 * first empty line. Adds to the record, so a log that is read twice counts twice. Callable from any thread.
 *
 * @param session  keeps what was applied before a failure
 * @param error    set only on failure: the file's name and the reason
 */
[[nodiscard]] bool readAgentLog(Session *session, const QString &path, QString *error);
