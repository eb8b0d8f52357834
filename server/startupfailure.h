// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Writes the reason why the server does not start as one line to standard error.
 * @return the process's exit code
 */
int reportStartupFailure(const QString &cause);
