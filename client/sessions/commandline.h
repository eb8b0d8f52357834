// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/**
 * The command line that a shell reads as @p arguments. A single argument is taken to be a command line already.
 */
[[nodiscard]] QString commandLine(const QStringList &arguments);

/** Whether @p text is what a session can have as its geometry: "rootless", or a size that the agent can make. */
[[nodiscard]] bool isGeometry(const QString &text);
