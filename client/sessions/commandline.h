// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/** The command line that a shell splits into @p arguments. A single argument is a command line already. */
[[nodiscard]] QString commandLine(const QStringList &arguments);

/** Whether @p text can be the geometry of a session: "rootless", or a size within the agent's limits. */
[[nodiscard]] bool isGeometry(const QString &text);
