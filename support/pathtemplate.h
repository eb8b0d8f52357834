// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Replaces the placeholders in a setting, so that hosts with a shared home directory have paths of their own:
 *   "@HOME@" is the home directory, "@TEMP@" the temporary directory,
 *   "@USER@" the environment variable USER (empty when unset), "@HOST@" the local host name.
 *
 * The values are read at every call. Placeholders within a value are not expanded. Everything else is copied unchanged.
 * Cannot fail. Callable from any thread.
 */
[[nodiscard]] QString expandPathTemplate(const QString &input);
