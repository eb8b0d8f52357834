// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/**
 * The command line that a shell reads as @p arguments. A single argument is taken to be a command line already.
 */
[[nodiscard]] QString commandLine(const QStringList &arguments);

/** Whether @p text is what the server takes as the geometry of a session. */
[[nodiscard]] bool isGeometry(const QString &text);
