// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <chrono>

/**
 * Chooses the window manager of a rootless session, which gives the one application the whole screen: openbox with
 * settings of ours where it is installed, else matchbox-window-manager, else none.
 *
 * @param settingsPath  absolute; gets the settings when openbox is chosen
 * @param arguments     set only on success: the path of the program and its arguments; empty when none is installed
 * @param error         set only on failure: one sentence
 */
[[nodiscard]] bool prepareWindowManager(const QString &settingsPath, QList<QByteArray> *arguments, QString *error);

/** How long to wait for a window manager that is started now, when the agent has run for @p sinceStart. */
[[nodiscard]] std::chrono::milliseconds windowManagerPatience(std::chrono::milliseconds sinceStart);
