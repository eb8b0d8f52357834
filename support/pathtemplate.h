// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Replaces the placeholders of a setting, so that one settings file in a shared home directory gives each
 * host its own paths:
 *   "@HOME@" the home directory, "@TEMP@" the temporary directory, "@USER@" the environment variable USER
 *   (empty when unset), "@HOST@" the local host name.
 *
 * The values are taken fresh on every call and are never expanded themselves. Everything else is copied
 * unchanged. Callable from any thread; cannot fail.
 */
[[nodiscard]] QString expandPathTemplate(const QString &input);
