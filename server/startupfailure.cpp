// SPDX-License-Identifier: MIT
#include "server/startupfailure.h"

#include "base/logging.h"

#include <unistd.h>

int reportStartupFailure(const QString &cause)
{
    const QByteArray line = Logging::formatLine(LogCritical, cause).toLocal8Bit() + '\n';
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.constData(), static_cast<size_t>(line.size()));
    return 1;
}
