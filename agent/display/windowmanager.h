// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <chrono>

/**
 * Chooses the window manager of a rootless session, which gives its one application the whole screen: openbox with our
 * own settings where it is installed, else matchbox-window-manager, else none.
 *
 * @param settingsPath  absolute; openbox's settings are written to it when openbox is chosen
 * @param arguments     set only on success: the path of the program and its arguments; empty when none is installed
 * @param error         set only on failure: one sentence
 */
[[nodiscard]] bool prepareWindowManager(const QString &settingsPath, QList<QByteArray> *arguments, QString *error);

/** How long a window manager that is started now is waited for, when the agent has run for @p sinceStart. */
[[nodiscard]] std::chrono::milliseconds windowManagerPatience(std::chrono::milliseconds sinceStart);
