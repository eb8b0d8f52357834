// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Tells whoever started the server why it does not start, in one line on standard error.
 * @return the process's exit code
 */
int reportStartupFailure(const QString &cause);
